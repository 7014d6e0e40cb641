// The genotype-probability file: one SNP per line, three probabilities per
// individual, plain or gzip.
#include <cstdint>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "data/data.h"
#include "io/console.h"
#include "io/field_reader.h"
#include "io/text_stream.h"

namespace {

// Index of the largest probability (the lowest index wins a tie), or 3 when
// that probability is below the call threshold.
std::uint8_t call_genotype(double const* p, double threshold) {
    int best = 0;
    if (p[1] > p[best]) best = 1;
    if (p[2] > p[best]) best = 2;
    return static_cast<std::uint8_t>(p[best] >= threshold ? best : 3);
}

}  // namespace

std::pair<int, int> data::held_individuals(int N) const {
    bool const all = parameters.seen("-snp_info") || parameters.seen("-exclude_samples");
    if (!all && parameters.seen("-merge")) return {0, 0};
    if (!all && parameters.seen("-chunk") && parameters.chunk_index >= 1 &&
        parameters.chunk_index <= parameters.chunk_count)
        return chunk_individuals(parameters.chunk_index, parameters.chunk_count, N);
    return {0, N};
}

void data::read_genotype_data() {
    boost::filesystem::path const& path = parameters.genotype_file;
    std::string const name = path.string();
    double const lower = parameters.lower - 1000.0 * parameters.buffer;
    double const upper = parameters.upper + 1000.0 * parameters.buffer;

    std::cout << std::endl << "Reading genotype file ... " << std::flush;
    if (is_gzip_path(path)) std::cout << "reading gzip file in gzip mode ... " << std::flush;
    std::unique_ptr<std::istream> in = open_text_input(path);
    if (!in) throw badfilename(name, " can't opened file.");
    check_whole_file(name, is_gzip_path(path));

    std::string line;
    int line_no = 0;
    int kept = 0;
    std::vector<double> probs;
    std::vector<std::uint8_t> calls;
    std::pair<int, int> held{0, 0};
    std::string snp_id, rs_id, allele_a, allele_b;
    while (read_text_line(*in, line)) {
        ++line_no;
        check_line(name, line, line_no, layouts::genotypes);
        field_reader fields(line);
        double position = 0.0;
        fields.read(snp_id) && fields.read(rs_id) && fields.read(position);
        if (position > upper) break;
        if (position < lower) continue;
        auto found = snps.find(position);
        if (found == snps.end()) continue;

        fields.read(allele_a) && fields.read(allele_b);
        if (!fields.good())
            throw badfilename(name, "Genotype file do not have SNP information in right format on line " +
                                        std::to_string(line_no));

        // Everybody's calls count towards the frequency as they are read;
        // only the held individuals' triples and calls are kept. The slice is
        // known once the first kept line has been counted: that line keeps
        // everybody, and the slice is cut out of it below.
        bool const first_line = n_individuals == -1;
        probs.clear();
        calls.clear();
        double sum = 0.0, called = 0.0;
        int n = 0;
        for (;; ++n) {
            double triple[3] = {0.0, 0.0, 0.0};
            fields.read(triple[0]);
            // The end of the line reached while reading a triple's first value
            // ends the line; a lone number there is ignored.
            if (fields.eof()) break;
            fields.read(triple[1]) && fields.read(triple[2]);
            if (fields.fail())
                throw badfilename(name, "Genotype file do not have the genotype information in right format on line " +
                                            std::to_string(line_no));
            std::uint8_t const call = call_genotype(triple, parameters.call_thresh);
            if (call != 3) {
                sum += call;
                called += 1.0;
            }
            if (!first_line && (n < held.first || n >= held.second)) continue;
            calls.push_back(call);
            probs.insert(probs.end(), triple, triple + 3);
        }
        if (!first_line && n_individuals != n)
            throw badfilename(name, "Genotype file have different individuals " + std::to_string(n_individuals) +
                                        " and " + std::to_string(n) + " on lines " + std::to_string(line_no) +
                                        " and " + std::to_string(line_no - 1));
        std::size_t offset = 0;  // of the slice in this line's rows
        if (first_line) {
            held = held_individuals(n);
            first_held = held.first;
            offset = static_cast<std::size_t>(held.first);
        }
        n_individuals = n;

        // No call at all gives 0/0: the frequency is left not-a-number.
        double const frequency = sum / (2.0 * called);

        snp& s = found->second;
        if (rs_id != s.rs_id) std::cout << "rs #'s don't agree : " << s.rs_id << " " << rs_id << std::endl;
        std::size_t const count = static_cast<std::size_t>(held.second - held.first);
        s.snp_id = snp_id;
        s.genotype_allele_a = allele_a;
        s.genotype_allele_b = allele_b;
        s.genotype_probs.assign(probs.data() + 3 * offset, count);
        s.genotypes.assign(calls.data() + offset, calls.data() + offset + count);
        s.genotype_frequency = frequency;
        s.data_type = 2;
        ++kept;
    }

    if (parameters.strict && kept == 0)
        throw badfilename(name, "no line is at a SNP of the reference panel in the interval widened by the buffer.");
    std::cout << "done" << std::endl;
    print_count(std::cout, "number of individuals in genotype file: ", n_individuals);
    print_count(std::cout, "number of SNPs in interval with haplotype data: ", kept);
    std::cout << std::endl;
}
