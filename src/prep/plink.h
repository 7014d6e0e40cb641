// BGEN input: plink2 (Debian package plink2) turns the BGEN file into a VCF
// that is then read like any other study file.
#pragma once

#include <string>

// Converts the BGEN file (first allele the reference) with its .sample file
// into <folder>/study.vcf.gz, bgzip-compressed, GP carrying the probabilities;
// returns that path. Throws prep_error naming the BGEN file.
// (A VCF, not a BCF: plink2 writes GP into a VCF as rounded text, "0.7802",
// which is what the genotype file has always carried; its BCF holds the
// unrounded floats, and the BCF of Debian's plink2 2.00a3.5 does not read back
// whole with htslib 1.16.)
std::string bgen_to_vcf(std::string const& bgen, std::string const& sample, std::string const& folder);
