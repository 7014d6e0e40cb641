// Kept forward arrays under a memory budget: the checkpoint plan's bookkeeping
// for every small case, and whole runs under tiny budgets against runs that
// keep every array, bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "hmm/kernel.h"
#include "support/test_support.h"

namespace {

using hmm_kernel::CheckpointPlan;
using hmm_kernel::tri_size;
using ketra_test::same_bits;

// Plays a plan through as the backward pass uses it (kept indices descending)
// and reports the first fault: an array used before it is stored, a slot
// overwritten while its array is still to be used, or a sweep from an array
// that is not held.
std::string replay(CheckpointPlan const& plan, int n_kept, long& steps) {
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
    if (done != plan.sweeps.size()) return "sweeps left over";
    return "";
}

// Every individual's posteriors and haplotype sums, in order, and the forward
// steps taken; the sums also as summed apart from the fused pass.
struct Result {
    std::vector<double> P, m, m_apart;
    long forward_steps = 0;
};

Result run_with(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, std::size_t budget) {
    hmm_kernel::Workspace ws(budget);
    Result r;
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

TEST(HmmCheckpoint, PlanKeepsEveryArrayUntilItsUseForAllSmallCases) {
    for (int n_kept = 1; n_kept <= 60; ++n_kept)
        for (int slots = 1; slots <= 12; ++slots) {
            SCOPED_TRACE("kept " + std::to_string(n_kept) + ", slots " + std::to_string(slots));
            CheckpointPlan const plan = hmm_kernel::plan_checkpoints(n_kept, slots);
            long steps = 0;
            ASSERT_EQ(replay(plan, n_kept, steps), "");
            ASSERT_LE(plan.slots, slots);
            EXPECT_TRUE(n_kept > slots || plan.sweeps.size() == 1u);
            // Two levels suffice while n_kept fits (slots+1)(slots+2)/2:
            // about two forward sweeps, never the quadratic fallback.
            EXPECT_TRUE(n_kept + 1 > (slots + 1) * (slots + 2) / 2 || steps <= 2L * n_kept);
        }
}

TEST(HmmCheckpoint, TinyBudgetsRecomputeAndGiveTheSameBits) {
    struct Case {
        int K, L, N;
        int slots;  // kept arrays the budget allows
    };
    std::mt19937_64 rng(17);
    for (Case const c : {Case{5, 40, 2, 1}, Case{7, 60, 2, 4}, Case{12, 50, 2, 3}, Case{3, 30, 3, 7},
                         Case{9, 45, 1, 1000}}) {
        SCOPED_TRACE("K " + std::to_string(c.K) + " L " + std::to_string(c.L) + " slots " + std::to_string(c.slots));
        ketra_test::RunData const run = ketra_test::make_run(c.K, c.L, c.N, 1e-30, false, rng);
        hmm_kernel::Panel const& panel = run.panel;
        hmm_kernel::Schedule const& schedule = run.schedule;
        std::size_t const per_array = (tri_size(c.K) + c.K) * sizeof(double);
        std::size_t const budget = c.slots * per_array + per_array / 2;
        ASSERT_EQ(hmm_kernel::Workspace::kept_slots(c.K, budget), c.slots);
        Result const all = run_with(panel, schedule, hmm_kernel::default_kept_budget);
        Result const few = run_with(panel, schedule, budget);
        bool const recomputes = c.slots < schedule.n_kept;
        EXPECT_EQ(few.forward_steps > all.forward_steps, recomputes);
        std::size_t const small = hmm_kernel::Workspace::bytes(c.K, schedule, budget);
        std::size_t const large = hmm_kernel::Workspace::bytes(c.K, schedule, hmm_kernel::default_kept_budget);
        EXPECT_EQ(small < large, recomputes);
        EXPECT_GE(small, (5 + std::min(c.slots, schedule.n_kept)) * tri_size(c.K) * sizeof(double));
        EXPECT_TRUE(same_bits(all.P, few.P));
        EXPECT_TRUE(same_bits(all.m, few.m));
        EXPECT_TRUE(same_bits(all.m, all.m_apart));  // the fused sums
    }
}
