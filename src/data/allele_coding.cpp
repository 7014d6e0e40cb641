#include "data/allele_coding.h"

#include <algorithm>
#include <iostream>

void reverse_allele_coding(snp& s, std::size_t individuals) {
    std::size_t const n = std::min({individuals, s.genotypes.size(), s.genotype_probs.size()});
    for (std::size_t i = 0; i < n; ++i)
        if (s.genotypes[i] != 3) s.genotypes.set(i, static_cast<std::uint8_t>(2 - s.genotypes[i]));
    s.genotype_probs.reverse_first(n);
    s.genotype_frequency = 1.0 - s.genotype_frequency;
}

std::string flip(std::string allele) {
    if (allele == "A") return "T";
    if (allele == "T") return "A";
    if (allele == "C") return "G";
    if (allele == "G") return "C";
    std::cout << "WARNING!!! Unknown allele type " << allele << " detected during strand alignment" << std::endl;
    return "N";
}
