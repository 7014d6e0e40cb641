// Allele-coding helpers shared by the strand step and the set-up step.
#pragma once

#include <cstddef>
#include <string>

#include "data/snp.h"

// Reads a SNP's genotypes with alleles A and B exchanged, for the first
// `individuals` individuals: calls 0 and 2 swap (3 stays), probability
// triples reverse, and the allele B frequency f becomes 1 - f.
void reverse_allele_coding(snp& s, std::size_t individuals);

// Complement of a one-letter allele; anything else warns and gives "N".
std::string flip(std::string allele);
