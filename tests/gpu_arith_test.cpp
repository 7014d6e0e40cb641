// The GPU engine's arithmetic, run on the CPU by teams of one and of three
// threads, against the CPU kernel's functions: every value must match bit for
// bit, the row sums and totals included.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "hmm/gpu_arith.h"
#include "hmm/kernel.h"
#include "support/test_support.h"

namespace {

using gpu_arith::tri_size;
using ketra_test::on_team;
using ketra_test::same_bits;
using Vec = std::vector<double>;

Vec random_values(std::mt19937_64& rng, std::size_t n, double scale) {
    std::uniform_real_distribution<double> u(0.05, 1.0);
    Vec v(n);
    for (double& x : v) x = u(rng) * scale;
    return v;
}

TEST(GpuArith, RecursionStepsMatchTheCpuKernel) {
    struct Case {
        int K;
        double scale, emission;  // of the values going in; tiny emissions force rescaling
        int team;
    };
    Case const cases[] = {{1, 1e-60, 1e-50, 3}, {3, 1.0, 0.3, 3},  {8, 1e-80, 1e-40, 3},
                          {13, 1.0, 0.2, 1},    {16, 1e-3, 1.0, 3}, {37, 1e-90, 1e-30, 3}};
    std::mt19937_64 rng(11);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " team=" + std::to_string(c.team));
        int const K = c.K;
        std::size_t const n = tri_size(K);
        Vec h(K);
        for (double& x : h) x = static_cast<double>(rng() & 1);
        Vec const ecol = random_values(rng, 3, c.emission), Fp = random_values(rng, n, c.scale);
        Vec Rp(K), work(4 * K + 1);
        double const Tp = hmm_kernel::row_sums(K, Fp.data(), Rp.data());
        double const jump = (1.0 - std::exp(-0.7 / K)) / K, stay = 1.0 - (K - 1) * jump;
        gpu_arith::Coefficients const co = gpu_arith::coefficients(stay, jump, Tp);
        // The CPU kernel writes (A, R, B) from zeros; the device code writes (Ag, Rg, Bg),
        // in place where it works in place, from the previous SNP's values.
        auto const check = [&](char const* step, auto cpu, auto gpu) {
            SCOPED_TRACE(step);
            Vec A(n), R(K), B(n), Ag = Fp, Rg = Rp, Bg(n);
            double const t = cpu(A.data(), R.data(), B.data());
            double const tg = on_team(c.team, [&](auto const& team) { return gpu(team, Ag.data(), Rg.data(), Bg.data()); });
            EXPECT_TRUE(same_bits(A, Ag));
            EXPECT_TRUE(same_bits(R, Rg));
            EXPECT_TRUE(same_bits(B, Bg));
            EXPECT_TRUE(same_bits({t}, {tg}));
        };
        check(
            "first SNP", [&](double* A, double* R, double*) { return hmm_kernel::forward_first(K, h.data(), ecol.data(), A, R); },
            [&](auto const& team, double* A, double* R, double*) {
                return gpu_arith::forward_first(team, K, h.data(), ecol.data(), A, R, work.data());
            });
        check(
            "forward step",
            [&](double* A, double* R, double*) {
                return hmm_kernel::forward_step(K, stay, jump, Fp.data(), Rp.data(), Tp, h.data(), ecol.data(), A, R);
            },
            [&](auto const& team, double* A, double* R, double*) {
                return gpu_arith::forward_step(team, K, stay, jump, A, R, Tp, h.data(), ecol.data(), work.data());
            });
        check(
            "E * B", [&](double* A, double* R, double*) { return hmm_kernel::weighted(K, Fp.data(), h.data(), ecol.data(), A, R); },
            [&](auto const& team, double* A, double* R, double*) {
                return gpu_arith::sweep(team, K, gpu_arith::WeightedRow{Fp.data(), A, h.data(), ecol.data()}, A, R,
                                        work.data());
            });
        check(
            "backward step and B",
            [&](double* A, double* R, double* B) {
                double const t =
                    hmm_kernel::gamma_step(K, stay, jump, Fp.data(), Rp.data(), Tp, h.data(), ecol.data(), A, R);
                hmm_kernel::backward_from_gamma(K, stay, jump, Fp.data(), Rp.data(), Tp, B);
                return t;
            },
            [&](auto const& team, double* A, double* R, double* B) {
                return gpu_arith::sweep(team, K, gpu_arith::GammaRow{A, B, Rp.data(), h.data(), ecol.data(), co}, A, R,
                                        work.data());
            });
    }
}

TEST(GpuArith, PosteriorAndSummariesMatchTheCpuKernel) {
    struct Case {
        int K;
        double rate, left, right;  // left or right 0: no distance step
        int team;
    };
    Case const cases[] = {{1, 1e-3, 10, 20, 1}, {5, 2e-4, 0, 0, 3}, {19, 1e-2, 1, 0, 1}, {30, 3e-4, 1500, 2, 3}};
    std::mt19937_64 rng(23);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " left=" + std::to_string(c.left));
        int const K = c.K;
        std::size_t const n = tri_size(K);
        Vec const F = random_values(rng, n, 1e-20), B = random_values(rng, n, 1e3);
        Vec P(n), scratch(2 * K), Pg(n), work(4 * K + 1 + 3 * (2 * K));
        hmm_kernel::posterior(K, c.rate, c.left, c.right, F.data(), B.data(), P.data(), scratch.data());
        auto const l = hmm_kernel::distance_switch_rates(K, c.rate, c.left);
        auto const r = hmm_kernel::distance_switch_rates(K, c.rate, c.right);
        on_team(c.team, [&](auto const& team) {
            gpu_arith::posterior(team, K, c.left != 0.0 && c.right != 0.0, l.first, l.second, r.first, r.second,
                                 F.data(), B.data(), Pg.data(), work.data());
            return 0.0;
        });
        ASSERT_TRUE(same_bits(P, Pg));

        Vec m(K), mg(K);
        double const sum = hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        double const sumg = on_team(c.team, [&](auto const& team) {
            return gpu_arith::sweep(team, K, gpu_arith::SumRow{P.data()}, P.data(), mg.data(), work.data());
        });
        EXPECT_TRUE(same_bits(m, mg));
        EXPECT_TRUE(same_bits({sum}, {sumg}));

        // Every node of a random tree is reported.
        hmm_kernel::BranchLayout const layout = ketra_test::random_layout(K, rng);
        int const nodes = layout.n_nodes();
        std::vector<int> marked(nodes);
        for (int v = 0; v < nodes; ++v) marked[v] = v;
        Vec both(nodes), one(nodes), bwork(2 * nodes), out(2 * nodes), expected;
        hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), bwork.data());
        gpu_arith::TreeView const view{nodes,           layout.child_a.data(), layout.child_b.data(),
                                       layout.lo.data(), layout.hi.data(),      layout.order.data(),
                                       marked.data(),    nodes};
        on_team(c.team, [&](auto const& team) {
            gpu_arith::branch_probabilities(team, K, view, P.data(), m.data(), out.data(), work.data() + 4 * K + 1);
            return 0.0;
        });
        for (int v = 0; v < nodes; ++v) expected.insert(expected.end(), {both[v], one[v]});
        EXPECT_TRUE(same_bits(expected, out));
    }
}

}  // namespace
