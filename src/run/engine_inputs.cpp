// The pair posterior at a position, and the adapters that turn the data store
// and parsed trees into the kernel's plain arrays.
#include <algorithm>
#include <stdexcept>
#include <type_traits>

#include "engine/kernel.h"
#include "run/hmm.h"

namespace {

using hmm_kernel::tri_size;

}  // namespace

void alleles_as_doubles(snp const& s, std::vector<double>& h) {
    for (std::size_t k = 0; k < h.size(); ++k) h[k] = s.haplotype_alleles[k] == 0 ? 0.0 : 1.0;
}

void HMM::find_matrix_private(std::vector<double>& out, double const& rate, double const& left_distance,
                              double const& right_distance, std::vector<double> const& backward_right,
                              std::vector<double> const& forward_left) {
    int const K = n_haplotypes;
    out.resize(tri_size(K));
    std::vector<double> scratch(2 * static_cast<std::size_t>(K));
    hmm_kernel::posterior(K, rate, left_distance, right_distance, forward_left.data(), backward_right.data(),
                          out.data(), scratch.data());
}

namespace {

// Store is data or data const; from a mutable store each SNP's calls are
// released as soon as they are copied.
template <class Store>
hmm_kernel::Panel build_panel(Store& store) {
    hmm_kernel::Panel panel;
    int const K = store.n_haplotypes > 0 ? store.n_haplotypes : 0;
    int const L = static_cast<int>(store.snps.size());
    int const N = store.n_individuals > 0 ? store.n_individuals : 0;
    // Only the individuals the store holds (a split run's slice) have codes.
    int const first = std::min(std::max(store.first_held, 0), N);
    int held = N - first;
    for (auto const& entry : store.snps) held = std::min(held, static_cast<int>(entry.second.genotypes.size()));
    panel.K = K;
    panel.L = L;
    panel.N = N;
    panel.first_held = first;
    panel.n_held = held;
    if (store.mutation_matrix.size() < 3)
        throw std::invalid_argument("emission matrix not set");
    for (int a = 0; a < 3; ++a) {
        if (store.mutation_matrix[a].size() < 4) throw std::invalid_argument("emission matrix not set");
        for (int g = 0; g < 4; ++g) panel.emission[g][a] = store.mutation_matrix[a][g];
    }
    panel.alleles.resize(static_cast<std::size_t>(L) * K);
    panel.stay.assign(L, 0.0);
    panel.jump.assign(L, 0.0);
    panel.position.reserve(L);
    panel.rate_per_base.reserve(L);
    panel.genotypes.resize(static_cast<std::size_t>(held) * L);
    std::vector<double> h(K);
    int s = 0;
    for (auto& entry : store.snps) {
        auto& x = entry.second;
        if (static_cast<int>(x.haplotype_alleles.size()) < K)
            throw std::invalid_argument("SNP record shorter than the panel");
        alleles_as_doubles(x, h);
        std::copy(h.begin(), h.end(), panel.alleles.begin() + static_cast<std::ptrdiff_t>(s) * K);
        if (x.switch_rates.size() >= 2) {
            panel.stay[s] = x.switch_rates[0];
            panel.jump[s] = x.switch_rates[1];
        }
        panel.position.push_back(entry.first);
        panel.rate_per_base.push_back(x.rate_per_base);
        for (int n = 0; n < held; ++n) panel.genotypes[static_cast<std::size_t>(n) * L + s] = x.genotypes[n];
        if constexpr (!std::is_const_v<Store>) x.genotypes.release();
        ++s;
    }
    return panel;
}

}  // namespace

hmm_kernel::Panel make_panel(data const& store) { return build_panel(store); }

hmm_kernel::Panel take_panel(data& store) { return build_panel(store); }

std::vector<hmm_kernel::Flank> find_position_flanks(data const& store, std::vector<double> const& positions) {
    std::vector<double> where, rate;
    where.reserve(store.snps.size());
    rate.reserve(store.snps.size());
    for (auto const& entry : store.snps) {
        where.push_back(entry.first);
        rate.push_back(entry.second.rate_per_base);
    }
    return hmm_kernel::find_flanks(where, rate, positions);
}

hmm_kernel::BranchLayout make_branch_layout(tree_nodes const& tree, int K) {
    std::vector<int> a, b;
    a.reserve(tree.size());
    b.reserve(tree.size());
    int expected = 0;
    for (auto const& entry : tree) {
        if (entry.first != expected++) throw std::invalid_argument("tree layout: node ids are not 0, 1, 2, ...");
        a.push_back(entry.second.child_a);
        b.push_back(entry.second.child_b);
    }
    return hmm_kernel::BranchLayout(K, std::move(a), std::move(b));
}
