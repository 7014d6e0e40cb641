// The per-individual engine against a brute-force ordered-pair model with an
// explicit K^2 x K^2 transition matrix over a table of panel shapes, and
// against itself under memory budgets so small that it recomputes forward
// arrays from checkpoints.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <iostream>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "engine/kernel.h"
#include "run/hmm.h"
#include "support/test_support.h"

namespace {

using Vec = std::vector<double>;
using Mat = std::vector<Vec>;
using hmm_kernel::tri_offset;
using hmm_kernel::tri_size;
using ketra_test::same_bits;

// Pair transition T((i,j) -> (k,l)) = t(i->k) t(j->l) over ordered pairs x = i K + j,
// with t(i->k) = (stay - jump) [i = k] + jump. The term where both copies jump
// is weighted by w: the step after a forward rescaling carries the previous
// total undivided, which leaves that term at w = the total.
Mat pair_transition(int K, double stay, double jump, double w = 1.0) {
    Mat T(K * K, Vec(K * K));
    for (int x = 0; x < K * K; ++x)
        for (int y = 0; y < K * K; ++y)
            T[x][y] = (x / K == y / K ? stay : jump) * (x % K == y % K ? stay : jump) - jump * jump * (1.0 - w);
    return T;
}

Vec apply(Mat const& T, Vec const& v, bool forward) {
    Vec out(v.size(), 0.0);
    for (std::size_t x = 0; x < v.size(); ++x)
        for (std::size_t y = 0; y < v.size(); ++y) (forward ? out[y] : out[x]) += T[x][y] * v[forward ? x : y];
    return out;
}

// Scales v to sum 1 and returns the sum.
double normalise(Vec& v) {
    double t = 0.0;
    for (double x : v) t += x;
    for (double& x : v) x /= t;
    return t;
}

struct Brute {
    Mat alpha, beta;  // per SNP, normalised
    int forward_rescales = 0, backward_rescales = 0;  // where the engine's totals fall below its limit
};

Brute brute_force(hmm_kernel::Panel const& p, int n) {
    int const K = p.K, L = p.L;
    auto E = [&](int s, int x) { return p.emission[p.genotypes_of(n)[s]][int(p.h(s)[x / K] + p.h(s)[x % K])]; };
    Brute b{Mat(L, Vec(K * K)), Mat(L, Vec(K * K, 1.0))};
    double scale = 1.0, w = 1.0;
    for (int s = 0; s < L; ++s) {
        if (s == 0) b.alpha[0] = Vec(K * K, 1.0 / (K * K));
        else b.alpha[s] = apply(pair_transition(K, p.stay[s], p.jump[s], w), b.alpha[s - 1], true);
        for (int x = 0; x < K * K; ++x) b.alpha[s][x] *= E(s, x);
        scale *= normalise(b.alpha[s]);
        w = 1.0;
        if (s > 0 && scale < hmm_kernel::underflow_limit) ++b.forward_rescales, w = scale, scale = 1.0;
    }
    scale = 1.0;
    for (int s = L - 2; s >= 0; --s) {
        Vec weighted = b.beta[s + 1];
        for (int x = 0; x < K * K; ++x) weighted[x] *= E(s + 1, x);
        if ((scale *= normalise(weighted)) < hmm_kernel::underflow_limit) ++b.backward_rescales, scale = 1.0;
        b.beta[s] = apply(pair_transition(K, p.stay[s + 1], p.jump[s + 1]), weighted, false);
    }
    return b;
}

Vec brute_posterior(int K, Brute const& b, hmm_kernel::Flank const& f) {
    Vec a = b.alpha[f.left], c = b.beta[f.right], p(K * K);
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        auto carry = [&](double d) {
            double const e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K;
            return pair_transition(K, e + jump, jump);
        };
        a = apply(carry(f.left_distance), a, true);
        c = apply(carry(f.right_distance), c, false);
    }
    for (int x = 0; x < K * K; ++x) p[x] = a[x] * c[x];
    normalise(p);
    return p;
}

double P_at(const double* P, int x, int y) { return x >= y ? P[tri_offset(x) + y] : P[tri_offset(y) + x]; }

// Every individual's posteriors and haplotype sums (also summed apart from the
// fused pass) at every position, in the schedule's order, and the forward steps taken.
struct BudgetRun { Vec P, m, m_apart; long forward_steps = 0; };

BudgetRun run_with(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule,
                   std::size_t budget = hmm_kernel::default_kept_budget) {
    hmm_kernel::Workspace ws(budget);
    std::size_t const K = panel.K, T = tri_size(panel.K), positions = schedule.flanks.size() * panel.N;
    BudgetRun r{Vec(positions * T), Vec(positions * K), Vec(positions * K)};
    for (int i = 0; i < panel.N; ++i) {
        auto sink = [&](int p, const double* x, const double* m) {
            std::size_t const at = i * schedule.flanks.size() + p;
            std::copy(x, x + T, r.P.begin() + at * T);
            std::copy(m, m + K, r.m.begin() + at * K);
            hmm_kernel::haplotype_probabilities(panel.K, x, r.m_apart.data() + at * K);
        };
        ws.run(panel, schedule, panel.genotypes_of(i), sink);
        r.forward_steps += ws.forward_steps();
    }
    return r;
}

}  // namespace

TEST(Engine, MatchesBruteForceOverShapes) {
    // The emissions' scale: tiny ones make the totals underflow, and both passes rescale.
    struct Shape { int K, L, N; double scale; };
    std::vector<Shape> const shapes = {
        {1, 5, 3, 1.0},   {2, 5, 3, 0.5},   {3, 6, 4, 1.0},   {4, 5, 3, 0.2},
        {5, 24, 2, 1e-28}, {9, 31, 3, 1e-60}, {12, 16, 5, 1.0}, {17, 22, 2, 1e-28},
    };
    std::mt19937_64 rng(7);
    for (Shape const& shape : shapes) {
        int const K = shape.K;
        SCOPED_TRACE("K=" + std::to_string(K) + " L=" + std::to_string(shape.L));
        ketra_test::RunData const run = ketra_test::make_run(K, shape.L, shape.N, shape.scale, false, rng);
        auto const& flanks = run.schedule.flanks;
        Vec const got = run_with(run.panel, run.schedule).P;
        // A random tree and the leaves below each node, found from the merges alone.
        hmm_kernel::BranchLayout const layout = ketra_test::random_layout(K, rng);
        int const nodes = layout.n_nodes();
        std::vector<std::vector<bool>> below(nodes, std::vector<bool>(K));
        for (int v = 0; v < nodes; ++v)
            for (int k = 0; k < K; ++k)
                below[v][k] = v < K ? k == v : below[layout.child_a[v]][k] || below[layout.child_b[v]][k];
        int rescales[2] = {0, 0};
        for (int n = 0; n < shape.N; ++n) {
            Brute const b = brute_force(run.panel, n);
            rescales[0] += b.forward_rescales;
            rescales[1] += b.backward_rescales;
            for (std::size_t p = 0; p < flanks.size(); ++p) {
                Vec const expected = brute_posterior(K, b, flanks[p]);
                const double* P = got.data() + (n * flanks.size() + p) * tri_size(K);
                for (int x = 0; x < K * K; ++x)
                    ASSERT_NEAR(P_at(P, x / K, x % K), expected[x], 1e-9 * expected[x] + 1e-300) << "flank " << p;
                // Copy probabilities and per-branch sums: both copies below a node, or exactly one.
                Vec m(K), both(nodes), one(nodes), work(2 * nodes), reordered(tri_size(K));
                hmm_kernel::haplotype_probabilities(K, P, m.data());
                hmm_kernel::branch_probabilities(layout, P, m.data(), both.data(), one.data(), work.data(),
                                                 reordered.data());
                for (int v = 0; v < nodes; ++v) {
                    double eb = 0.0, eo = 0.0;
                    for (int x = 0; x < K * K; ++x) {  // a leaf's sums add up to its copy probability m
                        eb += below[v][x / K] && below[v][x % K] ? expected[x] : 0.0;
                        eo += below[v][x / K] && !below[v][x % K] ? 2.0 * expected[x] : 0.0;
                    }
                    EXPECT_NEAR(both[v], eb, 1e-9) << "node " << v;
                    EXPECT_NEAR(one[v], eo, 1e-9) << "node " << v;
                }
            }
        }
        if (shape.scale < 1e-20) {
            EXPECT_TRUE(rescales[0] > 0 && rescales[1] > 0) << "no rescaling exercised";
        }
    }
}

// Branch sums from a copy of P, or (large K) from row sums taken without one,
// give the bits of the sums read from P in place: random trees, and combs
// leaning either way (the most row sums a tree can need).
TEST(Engine, BranchSumsAreTheSameOnEveryRoute) {
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int K : {150, 1100}) {
        Vec P(tri_size(K)), m(K);
        for (double& x : P) x = u(rng) * u(rng);
        hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        std::vector<hmm_kernel::BranchLayout> const layouts = ketra_test::random_tree_and_combs(K, rng);
        for (auto const& layout : layouts) {
            int const nodes = layout.n_nodes();
            Vec both(nodes), one(nodes), both_direct(nodes), one_direct(nodes), work(2 * nodes), copy(tri_size(K));
            hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), work.data(),
                                             copy.data());
            hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both_direct.data(), one_direct.data(),
                                             work.data());
            EXPECT_EQ(both, both_direct) << "K=" << K;
            EXPECT_EQ(one, one_direct) << "K=" << K;
            // The copy gathered through the tree's pair index.
            hmm_kernel::BranchLayout indexed = layout;
            indexed.index_pairs();
            std::fill(copy.begin(), copy.end(), 0.0);
            hmm_kernel::branch_probabilities(indexed, P.data(), m.data(), both.data(), one.data(), work.data(),
                                             copy.data());
            EXPECT_EQ(both, both_direct) << "K=" << K << ", pair index";
            EXPECT_EQ(one, one_direct) << "K=" << K << ", pair index";
        }
    }
}

// Pair indexes are made only where the sums copy P, and only within their budget.
TEST(Engine, PairIndexesFitTheirBudget) {
    struct Case { int K; std::size_t positions, bytes; };
    Case const cases[] = {{200, 201, 201u * 20100 * 4}, {1024, 31, 31u * 524800 * 4}, {1024, 32, 0},
                          {1025, 1, 0},           {100, 1, 5050 * 4}};
    for (auto const& c : cases)
        EXPECT_EQ(hmm_kernel::pair_index_bytes(c.K, c.positions), c.bytes) << c.K << " " << c.positions;
}

// A position with either distance 0 is taken as lying on its flank SNP: no carrying.
TEST(Engine, PositionsOnAFlankSnpAreNotCarried) {
    Vec const F = {0.1, 0.2, 0.3, 0.05, 0.15, 0.2}, B = {0.3, 0.1, 0.2, 0.4, 0.25, 0.05};
    auto at = [&](double dl, double dr) {
        Vec P(6), scratch(6);
        hmm_kernel::posterior(3, 0.01, dl, dr, F.data(), B.data(), P.data(), scratch.data());
        return P;
    };
    EXPECT_EQ(at(50.0, 0.0), at(0.0, 0.0));
    EXPECT_EQ(at(0.0, 50.0), at(0.0, 0.0));
    EXPECT_NE(at(50.0, 50.0), at(0.0, 0.0));
}

// Budgets for 1 to 12 kept arrays and for all, over runs that keep from a few
// to dozens of forward arrays: every plan must give the same bits.
TEST(Checkpoints, TinyBudgetsRecomputeAndGiveTheSameBits) {
    std::mt19937_64 rng(17);
    for (int L : {4, 12, 30, 60, 90}) {
        ketra_test::RunData const run = ketra_test::make_run(3 + L % 7, L, 2, 1e-30, false, rng);
        int const K = run.panel.K, n_kept = run.schedule.n_kept;
        std::size_t const per_array = (tri_size(K) + K) * sizeof(double);
        BudgetRun const all = run_with(run.panel, run.schedule);
        EXPECT_TRUE(same_bits(all.m, all.m_apart));  // the fused sums
        for (int slots = 1; slots <= 12; ++slots) {
            SCOPED_TRACE("K " + std::to_string(K) + ", kept " + std::to_string(n_kept) + ", slots " +
                         std::to_string(slots));
            std::size_t const budget = slots * per_array + per_array / 2;
            ASSERT_EQ(hmm_kernel::Workspace::kept_slots(K, budget), slots);
            BudgetRun const few = run_with(run.panel, run.schedule, budget);
            EXPECT_TRUE(same_bits(all.P, few.P) && same_bits(all.m, few.m));
            bool const recomputes = slots < n_kept;
            EXPECT_EQ(few.forward_steps > all.forward_steps, recomputes);
            std::size_t const small = hmm_kernel::Workspace::bytes(K, run.schedule, budget);
            EXPECT_EQ(small < hmm_kernel::Workspace::bytes(K, run.schedule), recomputes);
            EXPECT_GE(small, (5 + std::min(slots, n_kept)) * tri_size(K) * sizeof(double));
        }
    }
}

TEST(Checkpoints, PlansSweepTwiceWhileTwoLevelsSuffice) {
    for (int n_kept = 1; n_kept <= 60; ++n_kept)
        for (int slots = 1; slots <= 12; ++slots) {
            hmm_kernel::CheckpointPlan const plan = hmm_kernel::plan_checkpoints(n_kept, slots);
            long steps = 0;
            for (auto const& sweep : plan.sweeps) steps += sweep.to - sweep.from;
            EXPECT_LE(plan.slots, slots);
            // One sweep when all fit; about two while n_kept fits (slots+1)(slots+2)/2, never the quadratic fallback.
            EXPECT_TRUE(n_kept > slots || plan.sweeps.size() == 1u) << n_kept << " " << slots;
            EXPECT_TRUE(n_kept + 1 > (slots + 1) * (slots + 2) / 2 || steps <= 2L * n_kept) << n_kept << " " << slots;
        }
}

// The full-storage passes of the run object, read at each position with its
// own posterior, are the reference of the per-individual pipeline: on the
// bundled example (K = 100), at tree positions on SNPs and between them, the
// pipeline's posteriors are theirs bit for bit.
TEST(FullStorage, PipelineGivesTheFullStoragePosteriors) {
    ketra_test::TempDir dir;
    ketra_test::copy_example_data(dir);
    std::vector<std::string> words = {"ketra", "-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g",
                                      "study.gen.gz", "-tree_file", "trees.txt", "-int", "1350000", "1395000",
                                      "-buffer", "15", "-o", dir.file("out/run")};
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    boost::filesystem::path const here = boost::filesystem::current_path();
    boost::filesystem::current_path(dir.path());
    std::ostringstream console;
    std::streambuf* const cout = std::cout.rdbuf(console.rdbuf());
    LSMatrixParameters parameters;
    parameters.process_parameters(static_cast<int>(argv.size()), argv.data());
    parameters.aux_filename = dir.file("out/run.aux");
    HMM run;
    run = data(parameters);
    std::cout.rdbuf(cout);
    boost::filesystem::current_path(here);

    std::vector<snp const*> by_index;
    std::vector<double> at;
    for (auto const& entry : run.snps) {
        by_index.push_back(&entry.second);
        at.push_back(entry.first);
    }
    ASSERT_GT(at.size(), 40u);
    // Both ends, one between two SNPs, one on a SNP.
    std::vector<double> const positions = {at.front(), (at[10] + at[11]) / 2, at[40], at.back()};
    auto const flanks = find_position_flanks(run, positions);
    hmm_kernel::Panel const panel = make_panel(run);
    hmm_kernel::Schedule const schedule(panel.L, flanks);
    int const K = run.n_haplotypes;
    ASSERT_EQ(K, 100);
    hmm_kernel::Workspace workspace;
    for (int n : {0, 17, 49}) {
        std::vector<Vec> piped(positions.size());
        auto sink = [&](int p, const double* P) { piped[p].assign(P, P + tri_size(K)); };
        workspace.run(panel, schedule, panel.genotypes_of(n), sink);
        run.forward(n);
        run.backward(n);
        for (std::size_t p = 0; p < positions.size(); ++p) {
            hmm_kernel::Flank const& f = flanks[p];
            Vec full;
            run.find_matrix_private(full, f.rate, f.left_distance, f.right_distance, by_index[f.right]->backward_probs,
                                    by_index[f.left]->forward_probs);
            EXPECT_TRUE(ketra_test::same_bits(piped[p], full)) << "individual " << n << ", position " << positions[p];
        }
    }
}
