#include "bench_inputs.h"

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

namespace {

double const first_position = 1000000;
double const spacing = 100;  // base pairs between SNPs

}  // namespace

std::string write_bench_inputs(bench_sizes const& sizes, std::string const& dir) {
    std::mt19937_64 rng(sizes.seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int const K = sizes.haplotypes, L = sizes.snps, N = sizes.individuals;

    // Panel: haplotypes are mosaics of a few founders with some private
    // mutations, so copying runs are long as in real panels.
    int const founders = 12;
    std::vector<std::vector<int>> founder_alleles(founders, std::vector<int>(L));
    for (auto& f : founder_alleles)
        for (int s = 0; s < L; ++s) f[s] = unit(rng) < 0.3 ? 1 : 0;
    std::vector<std::vector<int>> panel(K, std::vector<int>(L));
    for (int k = 0; k < K; ++k) {
        int f = static_cast<int>(unit(rng) * founders);
        for (int s = 0; s < L; ++s) {
            if (unit(rng) < 0.01) f = static_cast<int>(unit(rng) * founders);
            panel[k][s] = unit(rng) < 0.005 ? 1 - founder_alleles[f][s] : founder_alleles[f][s];
        }
    }

    std::ofstream legend(dir + "/ref.legend"), hap(dir + "/ref.hap"), map(dir + "/map.txt");
    legend << "id position a0 a1\n";
    map << "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n";
    for (int s = 0; s < L; ++s) {
        double const position = first_position + spacing * s;
        legend << "rs" << s + 1 << " " << static_cast<long>(position) << " A G\n";
        for (int k = 0; k < K; ++k) hap << panel[k][s] << (k + 1 < K ? " " : "\n");
        map << static_cast<long>(position) << " 1.0 " << (position - first_position) * 1e-6 << "\n";
    }

    // Study individuals: two mosaics of panel haplotypes, with genotype errors
    // and some uncertain calls.
    std::ofstream gen(dir + "/study.gen");
    std::vector<std::vector<int>> genotypes(N, std::vector<int>(L));
    for (int n = 0; n < N; ++n) {
        int a = static_cast<int>(unit(rng) * K), b = static_cast<int>(unit(rng) * K);
        for (int s = 0; s < L; ++s) {
            if (unit(rng) < 0.005) a = static_cast<int>(unit(rng) * K);
            if (unit(rng) < 0.005) b = static_cast<int>(unit(rng) * K);
            int g = panel[a][s] + panel[b][s];
            if (unit(rng) < 0.002) g = static_cast<int>(unit(rng) * 3);
            genotypes[n][s] = g;
        }
    }
    char number[32];
    for (int s = 0; s < L; ++s) {
        long const position = static_cast<long>(first_position + spacing * s);
        gen << "SNP" << position << " rs" << s + 1 << " " << position << " A G";
        for (int n = 0; n < N; ++n) {
            double p[3] = {0, 0, 0};
            if (unit(rng) < 0.05) {
                p[genotypes[n][s]] = 0.6;
                p[(genotypes[n][s] + 1) % 3] = 0.4;
            } else {
                p[genotypes[n][s]] = 1;
            }
            for (double v : p) {
                std::snprintf(number, sizeof number, " %g", v);
                gen << number;
            }
        }
        gen << "\n";
    }

    // Trees: random merge orders (uniformly random pairs of active lineages)
    // at evenly spread positions strictly inside the SNP range.
    std::ofstream trees(dir + "/trees.txt");
    double const last_position = first_position + spacing * (L - 1);
    for (int t = 0; t < sizes.positions; ++t) {
        double const position =
            first_position + (last_position - first_position) * (t + 0.5) / sizes.positions + 0.5 * (t % 2);
        std::vector<int> active(K);
        for (int k = 0; k < K; ++k) active[k] = k + 1;
        int next_id = K + 1;
        std::ostringstream line;
        line << std::fixed;
        line.precision(1);
        line << position << " 0;" << K << ";";
        while (active.size() > 1) {
            std::size_t const i = static_cast<std::size_t>(unit(rng) * active.size());
            int const x = active[i];
            active.erase(active.begin() + static_cast<long>(i));
            std::size_t const j = static_cast<std::size_t>(unit(rng) * active.size());
            int const y = active[j];
            active.erase(active.begin() + static_cast<long>(j));
            line << x << " " << y << (active.empty() ? ";" : ",");
            active.push_back(next_id++);
        }
        trees << line.str() << "\n";
    }

    std::ostringstream args;
    args << "-h " << dir << "/ref.hap -l " << dir << "/ref.legend -m " << dir << "/map.txt -g " << dir
         << "/study.gen -tree_file " << dir << "/trees.txt -int " << static_cast<long>(first_position) << " "
         << static_cast<long>(last_position) << " -buffer 0 -tavlo_input";
    return args.str();
}
