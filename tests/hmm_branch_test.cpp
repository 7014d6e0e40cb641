// Branch sums, looked up in place or from the depth-first copy of the pair
// posterior, against one plain loop in the fixed order of additions, bit for bit.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "hmm/kernel.h"
#include "support/test_support.h"

namespace {

using hmm_kernel::BranchLayout;
using hmm_kernel::tri_offset;
using ketra_test::same_bits;

// The order every implementation must keep: per node, rows of b's leaves in
// depth-first order, each summed over a's leaves in depth-first order.
void reference(BranchLayout const& t, std::vector<double> const& P, std::vector<double> const& m,
               std::vector<double>& both, std::vector<double>& one) {
    int const n = t.n_nodes();
    std::vector<double> W(n), S(n);
    auto at = [&](int x, int y) { return x > y ? P[tri_offset(x) + y] : P[tri_offset(y) + x]; };
    for (int v = 0; v < n; ++v) {
        if (v < t.K) {
            W[v] = at(v, v);
            S[v] = m[v];
        } else {
            int const a = t.child_a[v], b = t.child_b[v];
            double cross = 0.0;
            for (int p = t.lo[b]; p < t.hi[b]; ++p) {
                double row = 0.0;
                for (int q = t.lo[a]; q < t.hi[a]; ++q) row += at(t.order[p], t.order[q]);
                cross += row;
            }
            W[v] = (W[a] + W[b]) + 2.0 * cross;
            S[v] = S[a] + S[b];
        }
        both[v] = W[v];
        one[v] = 2.0 * (S[v] - W[v]);
    }
}

}  // namespace

TEST(HmmBranchSums, InPlaceAndReorderedEqualTheFixedOrder) {
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int K : {1, 2, 3, 8, 9, 17, 129}) {
        SCOPED_TRACE("K = " + std::to_string(K));
        BranchLayout const t = ketra_test::random_layout(K, rng);
        std::vector<double> P(hmm_kernel::tri_size(K)), m(K);
        for (double& x : P) x = u(rng) * 1e-3;
        hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        int const n = t.n_nodes();
        std::vector<double> both(n), one(n), work(2 * n), want_both(n), want_one(n);
        reference(t, P, m, want_both, want_one);
        hmm_kernel::branch_probabilities(t, P.data(), m.data(), both.data(), one.data(), work.data());
        EXPECT_TRUE(same_bits(both, want_both) && same_bits(one, want_one)) << "in place";
        std::vector<double> reordered(P.size(), -1.0);
        hmm_kernel::branch_probabilities(t, P.data(), m.data(), both.data(), one.data(), work.data(),
                                         reordered.data());
        EXPECT_TRUE(same_bits(both, want_both) && same_bits(one, want_one)) << "reordered";
        for (int p = 0; p < K; ++p)
            for (int q = 0; q < p; ++q) {
                int const x = t.order[p], y = t.order[q];
                ASSERT_EQ(reordered[tri_offset(p) + q], P[x > y ? tri_offset(x) + y : tri_offset(y) + x]);
            }
    }
}
