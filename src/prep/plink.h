// The outside programs ketra-prep still runs: plink2, which turns a BGEN file
// into a VCF that is then read like any other study file.
#pragma once

#include <string>

// The program's path as shutil.which() finds it on PATH; throws prep_error
// "<name> not found on PATH (Debian package: <name>)" when it is not there.
std::string find_on_path(std::string const& name);

// Converts the BGEN file (first allele the reference) with its .sample file
// into <folder>/study.vcf.gz, bgzip-compressed, GP carrying the probabilities;
// returns that path. Throws prep_error naming plink2's last line of output.
// (A VCF, not a BCF: plink2 writes GP into a VCF as rounded text, "0.7802",
// which is what the genotype file has always carried; its BCF holds the
// unrounded floats, and the BCF of Debian's plink2 2.00a3.5 does not read back
// whole with htslib 1.16.)
std::string bgen_to_vcf(std::string const& bgen, std::string const& sample, std::string const& folder);
