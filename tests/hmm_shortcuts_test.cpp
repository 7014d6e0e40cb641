// The engine's shortcuts against the plain way of doing the same work, bit for
// bit: branch sums in place or from the depth-first copy of the pair posterior,
// tree parsing without leaf sets, and forward arrays recomputed from checkpoints
// under a memory budget.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "hmm/kernel.h"
#include "support/test_support.h"
#include "trees/tree.h"

namespace {

using hmm_kernel::BranchLayout;
using hmm_kernel::tri_offset;
using hmm_kernel::tri_size;
using ketra_test::same_bits;

// The order every implementation must keep: per node, rows of b's leaves in
// depth-first order, each summed over a's leaves in depth-first order.
void reference_branch_sums(BranchLayout const& t, std::vector<double> const& P, std::vector<double> const& m,
                           std::vector<double>& both, std::vector<double>& one) {
    std::vector<double> W(t.n_nodes()), S(t.n_nodes());
    auto at = [&](int x, int y) { return x > y ? P[tri_offset(x) + y] : P[tri_offset(y) + x]; };
    for (int v = 0; v < t.n_nodes(); ++v) {
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

// Node values as text (or the error), for comparing two parses.
std::string parse_outcome(std::string const& text, int leaves, bool leaf_sets) {
    tree_nodes tree;
    try {
        parse_tree(text, tree, leaves, leaf_sets);
    } catch (BadTreeDataException const& e) {
        return e.what();
    }
    std::string out;
    char buffer[160];
    for (auto const& [id, node] : tree) {
        std::snprintf(buffer, sizeof buffer, "%d:%d,%d %a %a %a;", id, node.child_a, node.child_b, node.time,
                      node.parent_time, node.branch_length);
        out += buffer;
        if (!leaf_sets && (!node.leaves_below.empty() || !node.leaves_outside.empty())) out += "leaf sets!";
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
    std::vector<double> P, m, m_apart;
    long forward_steps = 0;
};

BudgetRun run_with(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, std::size_t budget) {
    hmm_kernel::Workspace ws(budget);
    BudgetRun r;
    std::vector<double> m_apart(panel.K);
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

TEST(HmmShortcuts, BranchSumsInPlaceAndReorderedKeepTheFixedOrder) {
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int K : {1, 2, 3, 8, 9, 17, 129}) {
        SCOPED_TRACE("K = " + std::to_string(K));
        BranchLayout const t = ketra_test::random_layout(K, rng);
        std::vector<double> P(tri_size(K)), m(K);
        for (double& x : P) x = u(rng) * 1e-3;
        hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        int const n = t.n_nodes();
        std::vector<double> both(n), one(n), work(2 * n), want_both(n), want_one(n), reordered(P.size(), -1.0);
        reference_branch_sums(t, P, m, want_both, want_one);
        hmm_kernel::branch_probabilities(t, P.data(), m.data(), both.data(), one.data(), work.data());
        EXPECT_TRUE(same_bits(both, want_both) && same_bits(one, want_one)) << "in place";
        hmm_kernel::branch_probabilities(t, P.data(), m.data(), both.data(), one.data(), work.data(), reordered.data());
        EXPECT_TRUE(same_bits(both, want_both) && same_bits(one, want_one)) << "reordered";
        for (int p = 0; p < K; ++p)
            for (int q = 0; q < p; ++q) {
                int const x = t.order[p], y = t.order[q];
                ASSERT_EQ(reordered[tri_offset(p) + q], P[x > y ? tri_offset(x) + y : tri_offset(y) + x]);
            }
    }
}

TEST(HmmShortcuts, LeanTreeParseGivesTheSameNodesOrError) {
    // Reused, self-merged and unknown nodes at every stage, unclosed lists and
    // bad separators over 3 and 4 leaves; then valid trees, random ones included.
    std::vector<std::pair<std::string, int>> cases;
    for (int leaves : {3, 4})
        for (char const* text :
             {"1500 0;4;1 1,3 4,5 6;", "1500 0;4;1 2,5 1;", "1500 0;4;1 2,3 4,5 6,7 7;", "1500 0;4;1 2,3 4;",
              "1500 0;4;1 2,3 4,", "1500 0;4;1 2,1 3,5 6;", "1500 0;4;1 2,1 3,6 4;", "1500 0;4;1 2,3 5,4 6;",
              "1500 0;2;1 2,1 2;", "1500 0;4;1 5,3 4,5 6;", "1500 0;4;1 2 ,3 4,5 6;", "1500 0;4;1 2,3 4,5 6",
              "1500 0;4;1 2,3 4,5 5;", "1500 0;3;1 2,4 3,5 1;", "1500 0;3;1 2,3 4,1 2;", "1500 0 ;4;1 2;",
              "1500 0;4;", "1500 0;3;2 1,4 3;x", "1500 0;5;1 2,3 6,4 5,7 8;", "1500 0;4;1 2,3 4,5 6;"})
            cases.emplace_back(text, leaves);
    std::mt19937_64 rng(3);
    cases.emplace_back("9 0;1;", 1);
    for (int n : {2, 3, 17, 200}) {
        BranchLayout const t = ketra_test::random_layout(n, rng);  // nodes renumbered from 1 as the file has them
        std::string text = "12345 0;" + std::to_string(n) + ";";
        for (int v = n; v < t.n_nodes(); ++v)
            text += std::to_string(t.child_a[v] + 1) + " " + std::to_string(t.child_b[v] + 1) + (v + 1 < t.n_nodes() ? "," : ";");
        cases.emplace_back(text, n);
    }
    for (std::size_t k = 0; k < cases.size(); ++k) {
        auto const& [text, leaves] = cases[k];
        std::string const full = parse_outcome(text, leaves, true);
        EXPECT_EQ(parse_outcome(text, leaves, false), full) << text << " over " << leaves;
        EXPECT_TRUE(k + 5 < cases.size() || full.find("Bad tree") == std::string::npos) << text;  // the valid ones
    }
}

TEST(HmmShortcuts, CheckpointPlansKeepEveryArrayUntilItsUse) {
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

TEST(HmmShortcuts, TinyBudgetsRecomputeAndGiveTheSameBits) {
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
