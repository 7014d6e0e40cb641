#include "run/memory_check.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "engine/kernel.h"
#include "io/run_error.h"

namespace {

double read_number(char const* path) {
    std::ifstream in(path);
    std::string word;
    if (!(in >> word) || word == "max") return -1;
    try {
        return std::stod(word);
    } catch (...) {
        return -1;
    }
}

std::string megabytes(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f MB", bytes / 1e6);
    return text;
}

}  // namespace

double estimate_peak_memory(run_size const& s) {
    double const K = s.K, L = s.L, N = s.N, held = s.held;
    double const pair_array = K * (K + 1) / 2 * 8;
    // Data store: alleles (as read and as the engine's doubles), the held
    // individuals' probabilities and calls (and the engine's copy of the
    // calls), per-SNP records, and one line of the genotype file as text and
    // as numbers for every individual.
    double const data = L * K * (4 + 8) + L * held * (24 + 1 + 1) + L * 400 + N * 64;
    // Parsed trees and their branch layouts, about 2K nodes each, with their
    // pair indexes where they fit the budget.
    double const trees = static_cast<double>(s.positions) * 2 * K * 120 +
                         static_cast<double>(hmm_kernel::pair_index_bytes(s.K, static_cast<std::size_t>(s.positions)));
    // Per worker: kept forward arrays, working pair arrays, its record.
    double const worker = (s.kept_forward_arrays + 6) * pair_array + static_cast<double>(s.record_values) * 8;
    // Writers: a block of records and a block of text per thread.
    double const writer = (8 << 20) + (2 << 20);
    double const program = 20e6;
    return program + data + trees + s.threads * std::max(worker, writer);
}

double available_memory() {
    double available = -1;
    {
        std::ifstream in("/proc/meminfo");
        std::string key;
        double value = 0;
        std::string unit;
        while (in >> key >> value) {
            std::getline(in, unit);
            if (key == "MemAvailable:") {
                available = value * 1024;
                break;
            }
        }
    }
    // cgroup v2, then v1.
    double limit = read_number("/sys/fs/cgroup/memory.max");
    double usage = read_number("/sys/fs/cgroup/memory.current");
    if (limit < 0) {
        limit = read_number("/sys/fs/cgroup/memory/memory.limit_in_bytes");
        usage = read_number("/sys/fs/cgroup/memory/memory.usage_in_bytes");
        if (limit >= 1e18) limit = -1;  // v1 reports "no limit" as a huge number
    }
    if (limit >= 0) {
        double const left = std::max(0.0, limit - std::max(0.0, usage));
        available = available < 0 ? left : std::min(available, left);
    }
    return available;
}

void check_memory(double needed, double available, int threads, bool strict, std::ostream& console) {
    if (available < 0 || needed <= available) return;
    std::ostringstream text;
    text << "WARNING: this run needs about " << megabytes(needed) << " of memory, but only " << megabytes(available)
         << " is available. Use fewer threads"
         << (threads > 1 ? " (-threads " + std::to_string(std::max(1, threads / 2)) + ")" : std::string())
         << ", or split the individuals over several runs with -chunk <i> <n> and combine them with -merge <n>.";
    if (strict) throw run_error(text.str());
    console << text.str() << std::endl;
}
