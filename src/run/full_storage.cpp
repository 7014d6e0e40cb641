// The forward and backward passes with full storage: every SNP record's
// forward_probs and backward_probs filled for one individual. The matrix run
// does not use them (it keeps only what the positions need); they are the
// reference the per-individual pipeline is checked against.
#include <algorithm>
#include <iterator>

#include "engine/kernel.h"
#include "run/hmm.h"

namespace {

using hmm_kernel::tri_size;

void emission_column(std::vector<std::vector<double>> const& E, int g, double* ecol) {
    for (int a = 0; a < 3; ++a) ecol[a] = E[a][g];
}

void size_pair_array(std::vector<double>& v, std::size_t n) {
    if (v.size() != n) v.assign(n, 0.0);
}

}  // namespace

void HMM::forward(int const& individual) {
    int const K = n_haplotypes;
    if (K <= 0 || snps.empty()) return;
    std::size_t const n = tri_size(K);
    std::vector<double> h(K), R[2] = {std::vector<double>(K), std::vector<double>(K)};
    double ecol[3];
    int r = 0;
    double total = 0.0;
    snp* previous = nullptr;
    for (auto& entry : snps) {
        snp& s = entry.second;
        size_pair_array(s.forward_probs, n);
        alleles_as_doubles(s, h);
        emission_column(mutation_matrix, s.genotypes[individual - first_held], ecol);
        if (previous == nullptr) {
            total = hmm_kernel::forward_first(K, h.data(), ecol, s.forward_probs.data(), R[r].data());
        } else {
            total = hmm_kernel::forward_step(K, s.switch_rates[0], s.switch_rates[1], previous->forward_probs.data(),
                                             R[r].data(), total, h.data(), ecol, s.forward_probs.data(),
                                             R[1 - r].data());
            r = 1 - r;
        }
        previous = &s;
    }
}

void HMM::backward(int const& individual) {
    int const K = n_haplotypes;
    if (K <= 0 || snps.empty()) return;
    std::size_t const n = tri_size(K);
    std::vector<double> h(K), hn(K), R[2] = {std::vector<double>(K), std::vector<double>(K)};
    double ecol[3], ecoln[3];
    int r = 0;
    double total = 0.0;
    snp const* later = nullptr;  // the SNP after the current one
    for (auto it = snps.rbegin(); it != snps.rend(); ++it) {
        snp& s = it->second;
        size_pair_array(s.backward_probs, n);
        alleles_as_doubles(s, h);
        emission_column(mutation_matrix, s.genotypes[individual - first_held], ecol);
        bool const has_earlier = std::next(it) != snps.rend();
        if (later == nullptr) {
            total = hmm_kernel::backward_last(K, h.data(), ecol, s.backward_probs.data(), R[r].data(), has_earlier);
        } else {
            total = hmm_kernel::backward_step(K, later->switch_rates[0], later->switch_rates[1],
                                              later->backward_probs.data(), hn.data(), ecoln, R[r].data(), total,
                                              h.data(), ecol, s.backward_probs.data(), R[1 - r].data(), has_earlier);
            r = 1 - r;
        }
        later = &s;
        std::swap(h, hn);
        std::copy(ecol, ecol + 3, ecoln);
    }
}
