// Deterministic benchmark data sets of any size.
#pragma once

#include <cstdint>
#include <string>

struct bench_sizes {
    int haplotypes = 200;     // K
    int snps = 2000;          // L
    int individuals = 500;    // N
    int positions = 200;      // tree positions
    std::uint32_t seed = 1;
};

// Writes ref.legend, ref.hap, map.txt, study.gen, trees.txt into dir and
// returns the ketra arguments (without -o) that run on them.
std::string write_bench_inputs(bench_sizes const& sizes, std::string const& dir);
