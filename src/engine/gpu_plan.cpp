#include "engine/gpu_plan.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace hmm_gpu {

using gpu_arith::tri_size;

std::size_t work_doubles(RunShape const& shape, int kept_slots) {
    std::size_t const n = tri_size(shape.K), K = static_cast<std::size_t>(shape.K);
    // pairs, B, backup; P unless the results hold it; F for the sweeps that
    // recompute forward values, when not every array is kept.
    std::size_t const pair_arrays = 3 + (shape.pair_posteriors ? 0 : 1) + (kept_slots < shape.n_kept ? 1 : 0);
    return n * pair_arrays + gpu_arith::kept_stride(shape.K) * static_cast<std::size_t>(kept_slots) + 3 * K +
           4 * K + 1 + 3 * static_cast<std::size_t>(shape.max_nodes);
}

std::size_t result_doubles(RunShape const& shape) {
    std::size_t const P = static_cast<std::size_t>(shape.n_positions);
    return P * shape.K + shape.branch_values + (shape.pair_posteriors ? P * tri_size(shape.K) : 0);
}

std::size_t shared_doubles(RunShape const& shape) {
    return tri_size(shape.K) + 6 * static_cast<std::size_t>(shape.K) + 1 + 3 * static_cast<std::size_t>(shape.max_nodes);
}

namespace {

double mib(std::size_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

}  // namespace

LaunchPlan plan_launch(RunShape const& shape, DeviceLimits const& device, int N, bool force_global) {
    LaunchPlan launch;
    launch.shared = !force_global && shared_doubles(shape) * sizeof(double) <= device.shared_per_block;
    launch.threads = std::min(launch.shared ? max_threads_shared : max_threads_global,
                              std::max(32, (shape.K + 31) / 32 * 32));
    auto bytes = [&](int slots) {
        return (work_doubles(shape, slots) + result_doubles(shape)) * sizeof(double) +
               static_cast<std::size_t>(shape.L) + sizeof(int);
    };
    // Two batches in flight, and a tenth of the free memory left to the runtime.
    std::size_t const usable = device.free_bytes / 10 * 9 / 2;
    int const all = shape.n_kept;
    int const fewest = shape.checkpoints ? std::min(all, 1) : all;
    if (bytes(fewest) > usable) {
        std::ostringstream why;
        why << "one individual needs " << mib(2 * bytes(fewest)) << " MiB of device memory (K = " << shape.K
            << ", " << shape.L << " SNPs, " << shape.n_positions << " positions"
            << (shape.pair_posteriors ? ", every pair posterior kept" : "") << "), " << mib(device.free_bytes)
            << " MiB are free";
        launch.refusal = why.str();
        return launch;
    }
    std::size_t const result_bytes = std::max<std::size_t>(1, result_doubles(shape) * sizeof(double));
    std::size_t const host_batch = std::max<std::size_t>(1, device.host_result_bytes / result_bytes);
    std::size_t const wanted = std::min(
        host_batch, static_cast<std::size_t>(std::max(1, std::min(N, 2 * std::max(1, device.multiprocessors)))));
    int slots = all;
    if (wanted * bytes(all) > usable) {
        // The most slots with which the wanted batch fits, at least the fewest.
        std::size_t const per_slot = gpu_arith::kept_stride(shape.K) * sizeof(double);
        std::size_t const room = usable / wanted;
        std::size_t const base = bytes(0);
        std::size_t const fit = room > base ? (room - base) / per_slot : 0;
        slots = static_cast<int>(std::max<std::size_t>(fewest, std::min<std::size_t>(fit, all)));
    }
    launch.kept_slots = slots;
    launch.individual_bytes = bytes(slots);
    std::size_t batch = usable / launch.individual_bytes;
    batch = std::min(batch, host_batch);
    // Several batches let transfers and results overlap the kernels.
    std::size_t const individuals = static_cast<std::size_t>(std::max(N, 1));
    batch = std::min(batch, std::max<std::size_t>(2 * std::max(1, device.multiprocessors), (individuals + 3) / 4));
    batch = std::min(batch, individuals);
    launch.batch = static_cast<int>(std::max<std::size_t>(1, batch));
    return launch;
}

HostPlan::HostPlan(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, Outputs const& outputs)
    : K_(panel.K), L_(panel.L), n_kept_(schedule.n_kept), pair_posteriors_(outputs.pair_posteriors), panel_(panel) {
    if (schedule.L != L_) throw std::invalid_argument("schedule does not match the panel");
    std::size_t const L = static_cast<std::size_t>(L_);
    if (panel.alleles.size() != L * K_ || panel.stay.size() != L || panel.jump.size() != L ||
        panel.genotypes.size() != L * panel.n_held)
        throw std::invalid_argument("panel arrays do not match its sizes");
    std::size_t const P = schedule.flanks.size();
    bool const branches = outputs.layouts && !outputs.layouts->empty();
    if (branches && (outputs.layouts->size() != P || !outputs.marked || outputs.marked->size() != P))
        throw std::invalid_argument("branch layouts do not match the positions");
    for (int g = 0; g < 4; ++g)
        for (int a = 0; a < 3; ++a) emission_.push_back(panel.emission[g][a]);
    keep_slot_ = schedule.keep_slot;
    by_right_start_ = schedule.by_right_start;
    // Positions in the order the backward pass finishes them: by right flank
    // descending, then by left flank descending, so that the kept arrays are
    // used in descending order, as the checkpoint plan needs (the CPU's
    // order). Flanks that do not allow it (only made-up ones) keep every array.
    by_right_ = schedule.by_right;
    int previous = L_;
    for (int s = L_ - 1; s >= 0; --s) {
        auto const first = by_right_.begin() + by_right_start_[s];
        auto const last = by_right_.begin() + by_right_start_[s + 1];
        std::stable_sort(first, last, [&](int a, int b) { return schedule.flanks[a].left > schedule.flanks[b].left; });
        for (auto it = first; it != last; ++it) {
            descending_ = descending_ && schedule.flanks[*it].left <= previous;
            previous = schedule.flanks[*it].left;
        }
    }
    lowest_ = 0;
    while (lowest_ < L_ - 1 && by_right_start_[lowest_] == by_right_start_[lowest_ + 1]) ++lowest_;

    branch_offset_.assign(P + 1, 0);
    for (std::size_t p = 0; p < P; ++p) {
        hmm_kernel::Flank const& f = schedule.flanks[p];
        gpu_arith::PositionPlan pp{};
        pp.left_kept = schedule.keep_slot[f.left];
        pp.propagate = f.left_distance != 0.0 && f.right_distance != 0.0;
        if (pp.propagate) {
            auto const left = hmm_kernel::distance_switch_rates(K_, f.rate, f.left_distance);
            auto const right = hmm_kernel::distance_switch_rates(K_, f.rate, f.right_distance);
            pp.left_stay = left.first;
            pp.left_jump = left.second;
            pp.right_stay = right.first;
            pp.right_jump = right.second;
        }
        pp.tree = -1;
        std::size_t n_values = 0;
        if (branches) {
            hmm_kernel::BranchLayout const& layout = (*outputs.layouts)[p];
            std::vector<int> const& marked = (*outputs.marked)[p];
            int const n = layout.n_nodes();
            if (layout.K != K_ || static_cast<int>(layout.order.size()) != K_)
                throw std::invalid_argument("branch layout does not match the panel");
            for (int v : marked)
                if (v < 0 || v >= n) throw std::invalid_argument("marked node outside the tree");
            TreeAt t{n, static_cast<int>(marked.size()), 0, 0, 0, 0, 0, 0, tree_sizes_.size()};
            // Where each merge's rows start, and their total at the end.
            tree_sizes_.insert(tree_sizes_.end(), layout.row_start.begin(), layout.row_start.end());
            std::size_t rows = 0;
            for (int v = K_; v < n; ++v) rows += static_cast<std::size_t>(layout.hi[layout.child_b[v]] - layout.lo[layout.child_b[v]]);
            tree_sizes_.push_back(rows);
            auto append = [&](std::vector<int> const& v) {
                std::size_t const at = tree_ints_.size();
                tree_ints_.insert(tree_ints_.end(), v.begin(), v.end());
                return at;
            };
            t.child_a = append(layout.child_a);
            t.child_b = append(layout.child_b);
            t.lo = append(layout.lo);
            t.hi = append(layout.hi);
            t.order = append(layout.order);
            t.marked = append(marked);
            pp.tree = static_cast<int>(trees_.size());
            trees_.push_back(t);
            max_nodes_ = std::max(max_nodes_, n);
            n_values = 2 * marked.size();
        }
        pp.branch_offset = branch_offset_[p];
        branch_offset_[p + 1] = branch_offset_[p] + n_values;
        positions_.push_back(pp);
    }
    set_kept_slots(n_kept_);
}

RunShape HostPlan::shape() const {
    RunShape r;
    r.K = K_;
    r.L = L_;
    r.n_positions = n_positions();
    r.n_kept = n_kept_;
    r.checkpoints = descending_;
    r.max_nodes = max_nodes_;
    r.branch_values = branch_offset_.back();
    r.pair_posteriors = pair_posteriors_;
    return r;
}

void HostPlan::set_kept_slots(int slots) {
    kept_slots_ = descending_ ? std::min(std::max(slots, 1), n_kept_) : n_kept_;
    hmm_kernel::CheckpointPlan const plan = hmm_kernel::plan_checkpoints(n_kept_, kept_slots_);
    std::vector<int>& v = checkpoint_ints_;
    v.clear();
    CheckpointAt& at = checkpoint_;
    at.n_sweeps = static_cast<int>(plan.sweeps.size());
    at.from = v.size();
    for (auto const& sweep : plan.sweeps) v.push_back(sweep.from);
    at.to = v.size();
    for (auto const& sweep : plan.sweeps) v.push_back(sweep.to);
    at.store_start = v.size();
    std::size_t stored = 0;
    for (auto const& sweep : plan.sweeps) {
        v.push_back(static_cast<int>(stored));
        stored += sweep.store.size();
    }
    v.push_back(static_cast<int>(stored));
    at.store = v.size();
    for (auto const& sweep : plan.sweeps) v.insert(v.end(), sweep.store.begin(), sweep.store.end());
    at.slot_of = v.size();
    v.insert(v.end(), plan.slot_of.begin(), plan.slot_of.end());
    at.sweeps_before = v.size();
    v.insert(v.end(), plan.sweeps_before.begin(), plan.sweeps_before.end());
    at.kept_snp = v.size();
    v.resize(v.size() + n_kept_);
    for (int s = 0; s < L_; ++s)
        if (keep_slot_[s] >= 0) v[at.kept_snp + keep_slot_[s]] = s;
}

HostPlan::Arrays HostPlan::arrays() const {
    return {{&panel_.alleles, &panel_.stay, &panel_.jump, &emission_},
            {&keep_slot_, &by_right_start_, &by_right_, &tree_ints_, &checkpoint_ints_},
            &tree_sizes_,
            &positions_};
}

std::vector<gpu_arith::TreeView> HostPlan::tree_views(const int* ints, const std::size_t* sizes) const {
    std::vector<gpu_arith::TreeView> views;
    for (TreeAt const& t : trees_)
        views.push_back({t.n_nodes, ints + t.child_a, ints + t.child_b, ints + t.lo, ints + t.hi, ints + t.order,
                         ints + t.marked, t.n_marked, sizes + t.row_start});
    return views;
}

gpu_arith::Plan HostPlan::bind(Addresses const& at) const {
    gpu_arith::Plan plan;
    plan.K = K_;
    plan.L = L_;
    plan.n_kept = n_kept_;
    plan.n_positions = n_positions();
    plan.alleles = at.doubles[0];
    plan.stay = at.doubles[1];
    plan.jump = at.doubles[2];
    plan.emission = at.doubles[3];
    plan.keep_slot = at.ints[0];
    plan.by_right_start = at.ints[1];
    plan.by_right = at.ints[2];
    plan.lowest = lowest_;
    const int* c = at.ints[4];
    plan.n_sweeps = checkpoint_.n_sweeps;
    plan.sweep_from = c + checkpoint_.from;
    plan.sweep_to = c + checkpoint_.to;
    plan.store_start = c + checkpoint_.store_start;
    plan.store = c + checkpoint_.store;
    plan.slot_of = c + checkpoint_.slot_of;
    plan.sweeps_before = c + checkpoint_.sweeps_before;
    plan.kept_snp = c + checkpoint_.kept_snp;
    plan.positions = at.positions;
    plan.trees = at.trees;
    plan.every_posterior = pair_posteriors_;
    return plan;
}

gpu_arith::Plan HostPlan::bind_host(std::vector<gpu_arith::TreeView>& views) const {
    views = tree_views(tree_ints_.data(), tree_sizes_.data());
    return bind({{panel_.alleles.data(), panel_.stay.data(), panel_.jump.data(), emission_.data()},
                 {keep_slot_.data(), by_right_start_.data(), by_right_.data(), tree_ints_.data(), checkpoint_ints_.data()},
                 tree_sizes_.data(),
                 positions_.data(),
                 views.data()});
}

gpu_arith::Work HostPlan::carve_work(double* work, double* result) const {
    std::size_t const n = tri_size(K_);
    gpu_arith::Work w;
    w.pairs = work;
    w.B = w.pairs + n;
    w.backup = w.B + n;
    w.kept = w.backup + n;
    double* next = w.kept + gpu_arith::kept_stride(K_) * static_cast<std::size_t>(kept_slots_);
    w.F = nullptr;
    if (kept_slots_ < n_kept_) {
        w.F = next;
        next += n;
    }
    if (pair_posteriors_) {
        w.P = carve_result(result).pair_posteriors;
    } else {
        w.P = next;
        next += n;
    }
    w.R0 = next;
    w.R1 = w.R0 + K_;
    w.RS = w.R1 + K_;
    w.work = w.RS + K_;
    return w;
}

HostPlan::ResultView HostPlan::carve_result(double* result) const {
    std::size_t const P = positions_.size();
    ResultView v;
    v.m = result;
    v.branches = v.m + P * K_;
    v.pair_posteriors = pair_posteriors_ ? v.branches + branch_offset_[P] : nullptr;
    return v;
}

HostIndividual::HostIndividual(HostPlan const& plan)
    : work(plan.work_doubles(), 0.0), result(plan.result_doubles(), 0.0) {
    buffers = plan.carve_work(work.data(), result.data());
    view = plan.carve_result(result.data());
}

gpu_arith::Output HostIndividual::output() { return {view.m, view.branches, &status}; }

}  // namespace hmm_gpu
