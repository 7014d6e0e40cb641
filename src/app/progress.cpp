#include "app/progress.h"

#include <cstdint>
#include <fstream>
#include <iomanip>
#include <iostream>

#include "run/hmm.h"

std::string get_progress_bar(unsigned long width, double fraction) {
    // NaN (0/0 when there are no individuals) draws an empty bar.
    if (!(fraction >= 0)) fraction = 0;
    if (fraction > 1) fraction = 1;
    unsigned long const filled = static_cast<unsigned long>(fraction * width);
    return "[" + std::string(filled, '*') + std::string(width - filled, ' ') + "]";
}

void draw_progress_line(int done, int total) {
    std::cout << "\r" << get_progress_bar(60, static_cast<double>(done) / total) << std::setw(10) << done << "/"
              << total << std::flush;
}

void mem_est(data const& d, HMM& h) {
    auto count = [](auto n) { return static_cast<std::uint32_t>(n); };
    std::uint32_t const L = count(d.snps.size());
    std::uint32_t const H = count(d.n_haplotypes);
    std::uint32_t const N = count(d.n_individuals);
    std::uint32_t const h_L = count(h.snps.size());
    std::uint32_t const h_H = count(h.n_haplotypes);

    struct store { char const* label; std::uint32_t bytes; };
    store const stores[] = {
        {"  genetic and physical map: ", 32u * L},
        {"            haplotype data: ", 4u * L * H},
        {"            haplotype data: ", 4u * h_L * h_H},
        {"          called genotypes: ", 4u * L * N},
        {"       threshold genotypes: ", 24u * L * N},
        {"forward and backward paths: ", 8u * H * H * L},
    };
    double total = 0;
    for (store const& s : stores) {
        double const mb = static_cast<double>(s.bytes) / 1000000.0;
        total += mb;
        std::cout << s.label << mb << "Mb" << '\n';
    }
    std::ios::fmtflags const flags = std::cout.flags();
    std::streamsize const precision = std::cout.precision();
    std::cout << '\n' << "Estimated RAM required is   " << std::fixed << std::setprecision(3) << total << "Mb"
              << '\n' << '\n';
    std::cout.flags(flags);
    std::cout.precision(precision);
}

int countLines(std::string filename) {
    std::ifstream in(filename);
    if (!in.is_open()) return 0;
    int lines = 0;
    std::string line;
    while (std::getline(in, line)) ++lines;
    return lines;
}
