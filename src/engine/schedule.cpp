// Where each tree position lies between the SNPs, which forward arrays the
// backward pass will need, and the checkpoint plan that recomputes them
// within a fixed number of kept arrays.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "engine/kernel.h"
#include "engine/kernel_vectors.h"

namespace hmm_kernel {

// ---- Flanks and schedule ---------------------------------------------------

std::vector<Flank> find_flanks(std::vector<double> const& snp_positions, std::vector<double> const& rate_per_base,
                               std::vector<double> const& positions) {
    std::vector<Flank> flanks;
    flanks.reserve(positions.size());
    for (double t : positions) {
        if (snp_positions.empty() || !(t >= snp_positions.front() && t <= snp_positions.back()))
            throw std::out_of_range("position outside the SNP range");
        auto const right = std::lower_bound(snp_positions.begin(), snp_positions.end(), t);
        auto const left = std::upper_bound(snp_positions.begin(), snp_positions.end(), t) - 1;
        Flank f;
        f.left = static_cast<int>(left - snp_positions.begin());
        f.right = static_cast<int>(right - snp_positions.begin());
        if (*left != *right) {
            f.left_distance = t - *left;
            f.right_distance = *right - t;
        }
        f.rate = rate_per_base[f.right];
        flanks.push_back(f);
    }
    return flanks;
}

Schedule::Schedule(int L_, std::vector<Flank> f) : L(L_), flanks(std::move(f)) {
    keep_slot.assign(L, -1);
    by_right_start.assign(L + 1, 0);
    for (Flank const& x : flanks) {
        if (x.left < 0 || x.right >= L || x.left > x.right) throw std::out_of_range("flank outside the SNP table");
        ++by_right_start[x.right + 1];
    }
    for (int s = 0; s < L; ++s) by_right_start[s + 1] += by_right_start[s];
    by_right.assign(flanks.size(), 0);
    std::vector<int> fill(by_right_start.begin(), by_right_start.end() - 1);
    for (int p = 0; p < static_cast<int>(flanks.size()); ++p) by_right[fill[flanks[p].right]++] = p;
    n_kept = 0;
    for (int s = 0; s < L; ++s) keep_slot[s] = -1;
    for (Flank const& x : flanks)
        if (keep_slot[x.left] < 0) keep_slot[x.left] = -2;
    for (int s = 0; s < L; ++s)
        if (keep_slot[s] == -2) keep_slot[s] = n_kept++;
}

// ---- Checkpoints -------------------------------------------------------------

namespace {

// Builds the plan by playing the backward pass's uses through: range(lo, hi, f)
// makes kept arrays hi, hi-1, ..., lo available in that order, with lo held
// already (or lo = -1, the start, which takes no slot) and f slots free.
class Planner {
public:
    Planner(int n_kept, int slots) {
        plan.slots = slots;
        plan.slot_of.assign(n_kept, -1);
        plan.sweeps_before.assign(n_kept, 0);
        for (int k = slots - 1; k >= 0; --k) free_.push_back(k);
    }

    void range(int lo, int hi, int f) {
        int const n = hi - lo;
        if (n == 0) return use(lo);
        if (n <= f) {  // everything fits: one sweep stores it all
            std::vector<int> all;
            for (int k = lo + 1; k <= hi; ++k) all.push_back(k);
            sweep(lo, hi, all);
            for (int k = hi; k >= lo; --k) use(k);
            return;
        }
        // Split lo..hi into segments 0..c starting at start[t]; segment t > 0
        // starts with a checkpoint, and while it is worked on, checkpoints
        // 1..t are held, so f - t slots are free: it fits in one more sweep
        // when it has at most f - t + 1 arrays. The top segment is stored
        // during the sweep that lays the checkpoints.
        int const total = n + 1;
        auto capacity = [&](int c) { return (c + 1) * (f + 1) - c * (c + 1) / 2; };
        int c = 1;
        while (c < f && capacity(c) < total) ++c;
        std::vector<int> size(c + 1, 1);
        bool const fits = capacity(c) >= total;
        if (fits) {
            int rest = total;
            for (int t = c; t >= 1; --t) {
                size[t] = std::min(f - t + 1, rest - t);
                rest -= size[t];
            }
            size[0] = rest;
        } else {
            // Too long for one level: the top segment is its checkpoint
            // alone (no slot is left for more), the rest is shared by
            // capacity and split again below.
            int const shared = total - 1;
            int weight = 0;
            for (int t = 0; t < c; ++t) weight += f - t + 1;
            int given = 0;
            for (int t = c - 1; t >= 1; --t) {
                size[t] = std::max(1, static_cast<int>(static_cast<long>(shared) * (f - t + 1) / weight));
                given += size[t];
            }
            size[0] = shared - given;
            size[c] = 1;
        }
        std::vector<int> start(c + 1, lo);
        for (int t = 1; t <= c; ++t) start[t] = start[t - 1] + size[t - 1];
        std::vector<int> store(start.begin() + 1, start.end());
        for (int k = start[c] + 1; k <= hi; ++k) store.push_back(k);
        sweep(lo, hi, store);
        for (int k = hi; k >= start[c]; --k) use(k);
        for (int t = c - 1; t >= 1; --t) range(start[t], start[t + 1] - 1, f - t);
        range(lo, start[1] - 1, f);
    }

    CheckpointPlan plan;

private:
    void sweep(int from, int to, std::vector<int> const& store) {
        for (int k : store) {
            plan.slot_of[k] = free_.back();
            free_.pop_back();
        }
        plan.sweeps.push_back({from, to, store});
    }
    void use(int k) {
        if (k < 0) return;
        plan.sweeps_before[k] = static_cast<int>(plan.sweeps.size());
        free_.push_back(plan.slot_of[k]);
    }
    std::vector<int> free_;
};

}  // namespace

CheckpointPlan plan_checkpoints(int n_kept, int slots) {
    Planner planner(n_kept, std::max(slots, 1));
    if (n_kept > 0) planner.range(-1, n_kept - 1, planner.plan.slots);
    return std::move(planner.plan);
}

}  // namespace hmm_kernel
