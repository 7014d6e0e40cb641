// The straightforward engine the fast one replaced, kept only to measure
// against: every SNP's arrays stored as vectors of row vectors, serial sums, a
// table lookup per emission, branch sums over leaf sets, stream output.
#pragma once

#include <map>
#include <string>

#include "run/hmm.h"

// Seconds per individual of the whole per-individual work (both passes, every
// position's posterior, haplotype and branch sums, and the text of its pardo
// values), measured on the first `individuals` individuals.
double straightforward_seconds_per_individual(HMM const& hmm, std::map<double, std::string> const& trees,
                                              int individuals);
