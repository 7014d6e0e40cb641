// The genotype-probability file: one SNP per line, three probabilities per
// individual, plain or gzip.
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "io/console.h"
#include "data/data.h"
#include "io/text_stream.h"

namespace {

// Index of the largest probability (the lowest index wins a tie), or 3 when
// that probability is below the call threshold.
int call_genotype(std::vector<double> const& p, double threshold) {
    int best = 0;
    if (p[1] > p[best]) best = 1;
    if (p[2] > p[best]) best = 2;
    return p[best] >= threshold ? best : 3;
}

}  // namespace

void data::read_genotype_data() {
    boost::filesystem::path const& path = parameters.genotype_file;
    std::string const name = path.string();
    double const lower = parameters.lower - 1000.0 * parameters.buffer;
    double const upper = parameters.upper + 1000.0 * parameters.buffer;

    std::cout << std::endl << "Reading genotype file ... " << std::flush;
    if (is_gzip_path(path)) std::cout << "reading gzip file in gzip mode ... " << std::flush;
    std::unique_ptr<std::istream> in = open_text_input(path);
    if (!in) throw badfilename(name, " can't opened file.");

    std::string line;
    int line_no = 0;
    int kept = 0;
    std::vector<std::vector<double>> probs;
    std::vector<int> calls;
    while (read_text_line(*in, line)) {
        ++line_no;
        std::istringstream ls(line);
        std::string snp_id, rs_id, allele_a, allele_b;
        double position = 0.0;
        ls >> snp_id >> rs_id >> position;
        if (position > upper) break;
        if (position < lower) continue;
        auto found = snps.find(position);
        if (found == snps.end()) continue;

        ls >> allele_a >> allele_b;
        if (!ls.good())
            throw badfilename(name, "Genotype file do not have SNP information in right format on line " +
                                        std::to_string(line_no));

        probs.clear();
        calls.clear();
        while (true) {
            std::vector<double> triple(3, 0.0);
            ls >> triple[0];
            // The end of the line reached while reading a triple's first value
            // ends the line; a lone number there is ignored.
            if (ls.eof()) break;
            ls >> triple[1] >> triple[2];
            if (ls.fail())
                throw badfilename(name, "Genotype file do not have the genotype information in right format on line " +
                                            std::to_string(line_no));
            calls.push_back(call_genotype(triple, parameters.call_thresh));
            probs.push_back(std::move(triple));
        }

        int const n = static_cast<int>(probs.size());
        if (n_individuals != -1 && n_individuals != n)
            throw badfilename(name, "Genotype file have different individuals " + std::to_string(n_individuals) +
                                        " and " + std::to_string(n) + " on lines " + std::to_string(line_no) +
                                        " and " + std::to_string(line_no - 1));
        n_individuals = n;

        double sum = 0.0, called = 0.0;
        for (int c : calls) {
            if (c == 3) continue;
            sum += c;
            called += 1.0;
        }
        // No call at all gives 0/0: the frequency is left not-a-number.
        double const frequency = sum / (2.0 * called);

        snp& s = found->second;
        if (rs_id != s.rs_id) std::cout << "rs #'s don't agree : " << s.rs_id << " " << rs_id << std::endl;
        s.snp_id = snp_id;
        s.genotype_allele_a = allele_a;
        s.genotype_allele_b = allele_b;
        s.genotype_probs = std::move(probs);
        s.genotypes = std::move(calls);
        s.genotype_frequency = frequency;
        s.data_type = 2;
        ++kept;
    }

    std::cout << "done" << std::endl;
    print_count(std::cout, "number of individuals in genotype file: ", n_individuals);
    print_count(std::cout, "number of SNPs in interval with haplotype data: ", kept);
    std::cout << std::endl;
}
