// Strand of the genotype alleles: from the strand file, or predicted from
// allele frequencies with -fix_strand.
#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "data/allele_coding.h"
#include "data/data.h"
#include "io/console.h"
#include "io/text_stream.h"

void data::read_strand_data() {
    bool const fix = parameters.seen("-fix_strand");
    std::string const& file = parameters.strand_file;
    int lines_read = 0;
    int applied = 0;

    if (!parameters.seen("-strand")) {
        std::cout << "WARNING!! You have not supplied a strand file. ";
        if (fix)
            std::cout << "Ketra will try to predict the strand by matching the allele frequencies in the reference "
                         "and the inference data.";
        else
            std::cout << "All genotype data will be assumed to be on the forward strand.";
        std::cout << std::endl << std::endl;
    } else {
        std::cout << "Reading strand file ... " << std::flush;
        std::ifstream in(file);
        if (!in.is_open()) throw badfilename(file, "can't open strand file");
        check_whole_file(file);
        std::string line;
        while (read_text_line(in, line)) {
            ++lines_read;
            check_line(file, line, lines_read, layouts::strand);
            std::istringstream ls(line);
            double position = 0.0;
            std::string strand;
            if (!(ls >> position >> strand)) continue;
            // Only "-" changes anything; under -strict any other word than
            // "+" is taken for a file that is not a strand file.
            if (parameters.strict && strand != "+" && strand != "-")
                throw badfilename(file, "line " + std::to_string(lines_read) + ": strand '" + strand +
                                            "' is neither + nor -.");
            auto found = snps.find(position);
            if (found == snps.end()) continue;
            found->second.strand = strand;
            ++applied;
        }
        if (parameters.strict && applied == 0)
            throw badfilename(file, "no line is at a SNP of the genotype file and the reference panel.");
        std::cout << "done" << std::endl;
    }
    print_count(std::cout, "Number of positions with strand information read: ", lines_read);
    print_count(std::cout, "Number of positions where a strand is applied: ", applied);

    int missing = 0;
    for (auto& entry : snps) {
        snp& s = entry.second;
        if (s.strand != "*" || s.data_type != 2) continue;
        ++missing;
        if (!fix) continue;
        double const r = s.hap_frequency;
        double const g = s.genotype_frequency;
        // Frequencies far apart but summing close to one: the coding is reversed.
        if (std::fabs(r - g) > 0.2 && std::fabs(1.0 - r - g) < 0.2) {
            reverse_allele_coding(s, s.genotypes.size());
            s.strand = "f";
        }
    }
    label_60(std::cout, "Number of genotyped SNPs still missing a strand: ") << missing;
    if (fix) std::cout << " (fixed by allele frequency)";
    std::cout << std::endl;
}
