// Last loading step: keep the genotyped SNPs, bring genotype alleles onto the
// panel's strand and labels, then derive the emission matrix and switch rates.
#include <algorithm>
#include <iostream>
#include <iterator>
#include <utility>

#include "data/allele_coding.h"
#include "data/data.h"

void data::setup() {
    std::cout << std::endl << "Not including data at SNPs with no genotypes" << std::endl;
    // In place: the records keep their rows, nothing is copied.
    for (auto it = snps.begin(); it != snps.end();) it = it->second.data_type == 2 ? std::next(it) : snps.erase(it);

    int left = 0, right = 0, inside = 0;
    for (auto const& entry : snps) {
        if (entry.first < parameters.lower) ++left;
        else if (entry.first > parameters.upper) ++right;
        else ++inside;
    }
    std::cout << std::endl << "Summary :" << std::endl;
    std::cout << left << " SNPs in left-hand buffer region" << std::endl;
    std::cout << right << " SNPs in right-hand buffer region" << std::endl;
    std::cout << inside << " SNPs are in region of interest" << std::endl;
    std::cout << snps.size() << " SNPs in total" << std::endl;
    std::cout << std::endl;

    std::cout << "equating strand orientation and allele labels of haplotypes and genotypes..." << std::flush;
    for (auto& entry : snps) {
        snp& s = entry.second;
        if (s.strand == "-") {
            s.genotype_allele_a = flip(s.genotype_allele_a);
            s.genotype_allele_b = flip(s.genotype_allele_b);
        }
        if (s.genotype_allele_a != s.legend_allele_1) continue;
        // Genotype labels are the panel's the other way round.
        std::swap(s.genotype_allele_a, s.genotype_allele_b);
        reverse_allele_coding(s, static_cast<std::size_t>(std::max(n_individuals, 0)));
    }
    std::cout << "done" << std::endl;

    std::cout << "setting storage space..." << std::flush;
    if (parameters.num_individuals == 0) parameters.num_individuals = n_individuals;
    for (int row = 0; row < 3; ++row) mutation_matrix.push_back(std::vector<double>(4, 0.0));
    std::cout << "done" << std::endl;

    set_mutation_matrix(n_haplotypes);
    set_switch_rates();
}
