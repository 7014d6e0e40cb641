// Peak memory of a run, estimated before the passes, against what the
// machine (or the cgroup the run lives in) has available.
#pragma once

#include <cstddef>
#include <ostream>

struct run_size {
    int K = 0;                      // reference haplotypes
    int L = 0;                      // SNPs
    int N = 0;                      // individuals in the genotype file
    int held = 0;                   // individuals whose genotypes are held (a split run's slice)
    int positions = 0;              // selected tree positions
    int kept_forward_arrays = 0;    // pair arrays each worker keeps for the positions
    int threads = 1;
    std::size_t record_values = 0;  // doubles per individual's record
};

// Bytes the run needs at its peak.
double estimate_peak_memory(run_size const& size);

// Bytes available to this process: MemAvailable, or the cgroup's limit less
// its usage when that is smaller; a negative value when neither is known.
double available_memory();

// Prints nothing when needed <= available (or available is unknown).
// Otherwise prints a warning that says what is needed, what is available and
// what to change; with strict, throws run_error with that text instead.
void check_memory(double needed, double available, int threads, bool strict, std::ostream& console);
