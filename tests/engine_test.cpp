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

#include "hmm/hmm.h"
#include "hmm/kernel.h"
#include "support/test_support.h"

namespace {

using Vec = std::vector<double>;
using Mat = std::vector<Vec>;
using hmm_kernel::tri_offset;
using hmm_kernel::tri_size;
using ketra_test::same_bits;

struct Shape {
    int K, L, N;
    double theta;
    // Runs of SNPs where every haplotype carries allele 0 and every individual
    // two copies of allele 1: the totals underflow and both passes rescale.
    bool mismatch_runs;
};

HMM make_hmm(Shape const& shape, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    HMM h;
    h.n_haplotypes = shape.K;
    h.n_individuals = shape.N;
    double const e = 0.5 * shape.theta / (shape.theta + shape.K), s = 1.0 - e;
    h.mutation_matrix = {{s * s, 2 * s * e, e * e, 1.0}, {s * e, s * s + e * e, s * e, 1.0}, {e * e, 2 * s * e, s * s, 1.0}};
    double pos = 1000.0, gen = 0.0, prev_pos = 0.0, prev_gen = 0.0;
    for (int l = 0; l < shape.L; ++l) {
        snp x;
        bool const run = shape.mismatch_runs && (l % 7) >= 2;
        for (int k = 0; k < shape.K; ++k) x.haplotype_alleles.push_back(run ? 0 : (u(rng) < 0.4 ? 1 : 0));
        for (int n = 0; n < shape.N; ++n) x.genotypes.push_back(run ? 2 : static_cast<int>(u(rng) * 4));
        if (l > 0) {
            double const jump = (1.0 - std::exp(-(gen - prev_gen) / shape.K)) / shape.K;
            x.switch_rates = {1.0 - (shape.K - 1) * jump, jump};
            x.rate_per_base = (gen - prev_gen) / (pos - prev_pos);
        }
        h.snps[pos] = x;
        prev_pos = pos;
        prev_gen = gen;
        pos += 10.0 + std::floor(u(rng) * 500.0);
        gen += 2.0 * u(rng);
    }
    return h;
}

// Positions at the first and last SNP, at inner SNPs, and between SNPs, several sharing flanks.
std::vector<hmm_kernel::Flank> test_flanks(HMM const& h) {
    std::vector<double> at, out;
    for (auto const& e : h.snps) at.push_back(e.first);
    out = {at.front(), at.back(), at.back() - 1.0};
    for (std::size_t s = 0; s + 1 < at.size(); ++s) {
        out.push_back(at[s] + 0.25 * (at[s + 1] - at[s]));
        if (s % 2 == 0) out.push_back(at[s] + 0.75 * (at[s + 1] - at[s]));
        if (s % 3 == 1) out.push_back(at[s]);
    }
    return find_position_flanks(h, out);
}

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

Brute brute_force(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    std::vector<snp const*> v;
    for (auto const& e : h.snps) v.push_back(&e.second);
    int const L = static_cast<int>(v.size());
    auto E = [&](int s, int x) {
        return h.mutation_matrix[v[s]->haplotype_alleles[x / K] + v[s]->haplotype_alleles[x % K]][v[s]->genotypes[n]];
    };
    Brute b{Mat(L, Vec(K * K)), Mat(L, Vec(K * K, 1.0))};
    double scale = 1.0, w = 1.0;
    for (int s = 0; s < L; ++s) {
        if (s == 0) b.alpha[0] = Vec(K * K, 1.0 / (K * K));
        else b.alpha[s] = apply(pair_transition(K, v[s]->switch_rates[0], v[s]->switch_rates[1], w), b.alpha[s - 1], true);
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
        b.beta[s] = apply(pair_transition(K, v[s + 1]->switch_rates[0], v[s + 1]->switch_rates[1]), weighted, false);
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

// Every individual's posterior at every flank.
Mat engine_posteriors(HMM const& h, std::vector<hmm_kernel::Flank> const& flanks) {
    hmm_kernel::Panel const panel = make_panel(h);
    hmm_kernel::Schedule const schedule(panel.L, flanks);
    Mat out(panel.N * flanks.size());
    hmm_kernel::Workspace ws;
    for (int n = 0; n < panel.N; ++n) {
        auto sink = [&](int p, const double* x) { out[n * flanks.size() + p].assign(x, x + tri_size(panel.K)); };
        ws.run(panel, schedule, panel.genotypes_of(n), sink);
    }
    return out;
}

// Plays a plan through as the backward pass uses it (kept indices descending)
// and reports the first fault.
std::string replay(hmm_kernel::CheckpointPlan const& plan, int n_kept, long& steps) {
    std::vector<int> holder(plan.slots, -1);  // kept index in each slot
    std::vector<bool> stored(n_kept, false);
    std::size_t done = 0;
    steps = 0;
    for (int k = n_kept - 1; k >= 0; --k) {
        for (; static_cast<int>(done) < plan.sweeps_before[k]; ++done) {
            auto const& sw = plan.sweeps[done];
            if (sw.from >= 0 && holder[plan.slot_of[sw.from]] != sw.from) return "sweep from a lost array";
            steps += sw.to - sw.from;
            for (int x : sw.store) {
                int const slot = plan.slot_of[x];
                if (slot < 0 || slot >= plan.slots) return "slot out of range";
                if (holder[slot] >= 0 && holder[slot] <= k) return "live array overwritten";
                if (stored[x]) return "stored twice";
                holder[slot] = x;
                stored[x] = true;
            }
        }
        if (!stored[k] || holder[plan.slot_of[k]] != k) return "array missing when used";
    }
    return done == plan.sweeps.size() ? "" : "sweeps left over";
}

// Every individual's posteriors and haplotype sums (also summed apart from
// the fused pass), and the forward steps taken.
struct BudgetRun {
    Vec P, m, m_apart;
    long forward_steps = 0;
};

BudgetRun run_with(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, std::size_t budget) {
    hmm_kernel::Workspace ws(budget);
    BudgetRun r;
    Vec m_apart(panel.K);
    for (int i = 0; i < panel.N; ++i) {
        auto sink = [&](int, const double* x, const double* m) {
            r.P.insert(r.P.end(), x, x + tri_size(panel.K));
            r.m.insert(r.m.end(), m, m + panel.K);
            hmm_kernel::haplotype_probabilities(panel.K, x, m_apart.data());
            r.m_apart.insert(r.m_apart.end(), m_apart.begin(), m_apart.end());
        };
        ws.run(panel, schedule, panel.genotypes_of(i), sink);
        r.forward_steps += ws.forward_steps();
    }
    return r;
}

}  // namespace

TEST(Engine, MatchesBruteForceOverShapes) {
    std::vector<Shape> const shapes = {
        {1, 5, 3, 0.3, false},      {2, 5, 3, 0.5, false},  {3, 6, 4, 0.8, false},   {4, 5, 3, 1.1, false},
        {5, 24, 2, 1e-28, true},    {9, 31, 3, 1e-60, true}, {12, 16, 5, 0.4, false}, {17, 22, 2, 1e-28, true},
    };
    std::mt19937_64 rng(7);
    for (Shape const& shape : shapes) {
        int const K = shape.K;
        SCOPED_TRACE("K=" + std::to_string(K) + " L=" + std::to_string(shape.L));
        HMM const h = make_hmm(shape, 100 * K + shape.L);
        auto const flanks = test_flanks(h);
        Mat const got = engine_posteriors(h, flanks);
        // A random tree and the leaves below each node, found from the merges alone.
        hmm_kernel::BranchLayout const layout = ketra_test::random_layout(K, rng);
        int const nodes = layout.n_nodes();
        std::vector<std::vector<bool>> below(nodes, std::vector<bool>(K));
        for (int v = 0; v < nodes; ++v)
            for (int k = 0; k < K; ++k)
                below[v][k] = v < K ? k == v : below[layout.child_a[v]][k] || below[layout.child_b[v]][k];
        int rescales[2] = {0, 0};
        for (int n = 0; n < shape.N; ++n) {
            Brute const b = brute_force(h, n);
            rescales[0] += b.forward_rescales;
            rescales[1] += b.backward_rescales;
            for (std::size_t p = 0; p < flanks.size(); ++p) {
                Vec const expected = brute_posterior(K, b, flanks[p]);
                const double* P = got[n * flanks.size() + p].data();
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
        if (shape.mismatch_runs) {
            EXPECT_TRUE(rescales[0] > 0 && rescales[1] > 0) << "no rescaling exercised";
        }
    }
}

TEST(Engine, PositionsOnAFlankSnpAndMalformedInput) {
    // A position with either distance 0 is taken as lying on its flank SNP: no carrying.
    Vec const F = {0.1, 0.2, 0.3, 0.05, 0.15, 0.2}, B = {0.3, 0.1, 0.2, 0.4, 0.25, 0.05};
    auto at = [&](double dl, double dr) {
        Vec P(6), scratch(6);
        hmm_kernel::posterior(3, 0.01, dl, dr, F.data(), B.data(), P.data(), scratch.data());
        return P;
    };
    EXPECT_EQ(at(50.0, 0.0), at(0.0, 0.0));
    EXPECT_EQ(at(0.0, 50.0), at(0.0, 0.0));
    EXPECT_NE(at(50.0, 50.0), at(0.0, 0.0));
    Vec const pos = {100.0, 200.0, 350.0}, rate = {0.0, 0.5, 0.25};
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {99.0}), std::out_of_range);
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {350.5}), std::out_of_range);
    // Tables that are not trees: a self-merge, a child with a later id, a leaf with children.
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 0}, {-1, -1, -1, 0}), std::invalid_argument);
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 4}, {-1, -1, -1, 1}), std::invalid_argument);
    EXPECT_THROW(hmm_kernel::BranchLayout(2, {-1, 0}, {-1, -1}), std::invalid_argument);
}

TEST(Checkpoints, PlansKeepEveryArrayUntilItsUse) {
    for (int n_kept = 1; n_kept <= 60; ++n_kept)
        for (int slots = 1; slots <= 12; ++slots) {
            SCOPED_TRACE("kept " + std::to_string(n_kept) + ", slots " + std::to_string(slots));
            hmm_kernel::CheckpointPlan const plan = hmm_kernel::plan_checkpoints(n_kept, slots);
            long steps = 0;
            ASSERT_EQ(replay(plan, n_kept, steps), "");
            ASSERT_LE(plan.slots, slots);
            EXPECT_TRUE(n_kept > slots || plan.sweeps.size() == 1u);
            // Two levels suffice while n_kept fits (slots+1)(slots+2)/2: about
            // two forward sweeps, never the quadratic fallback.
            EXPECT_TRUE(n_kept + 1 > (slots + 1) * (slots + 2) / 2 || steps <= 2L * n_kept);
        }
}

TEST(Checkpoints, TinyBudgetsRecomputeAndGiveTheSameBits) {
    struct Case {
        int K, L, N, slots;  // kept arrays the budget allows
    };
    std::mt19937_64 rng(17);
    for (Case const c : {Case{5, 40, 2, 1}, Case{7, 60, 2, 4}, Case{12, 50, 2, 3}, Case{3, 30, 3, 7}, Case{9, 45, 1, 1000}}) {
        SCOPED_TRACE("K " + std::to_string(c.K) + " L " + std::to_string(c.L) + " slots " + std::to_string(c.slots));
        ketra_test::RunData const run = ketra_test::make_run(c.K, c.L, c.N, 1e-30, false, rng);
        std::size_t const per_array = (tri_size(c.K) + c.K) * sizeof(double);
        std::size_t const budget = c.slots * per_array + per_array / 2, all_budget = hmm_kernel::default_kept_budget;
        ASSERT_EQ(hmm_kernel::Workspace::kept_slots(c.K, budget), c.slots);
        BudgetRun const all = run_with(run.panel, run.schedule, all_budget), few = run_with(run.panel, run.schedule, budget);
        bool const recomputes = c.slots < run.schedule.n_kept;
        EXPECT_EQ(few.forward_steps > all.forward_steps, recomputes);
        std::size_t const small = hmm_kernel::Workspace::bytes(c.K, run.schedule, budget);
        EXPECT_EQ(small < hmm_kernel::Workspace::bytes(c.K, run.schedule, all_budget), recomputes);
        EXPECT_GE(small, (5 + std::min(c.slots, run.schedule.n_kept)) * tri_size(c.K) * sizeof(double));
        EXPECT_TRUE(same_bits(all.P, few.P) && same_bits(all.m, few.m));
        EXPECT_TRUE(same_bits(all.m, all.m_apart));  // the fused sums
    }
}
