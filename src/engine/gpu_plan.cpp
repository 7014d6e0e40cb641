#include "engine/gpu_plan.h"

#include <algorithm>
#include <stdexcept>

namespace hmm_gpu {

using gpu_arith::tri_size;

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
    by_right_ = schedule.by_right;

    branch_offset_.assign(P + 1, 0);
    for (std::size_t p = 0; p < P; ++p) {
        hmm_kernel::Flank const& f = schedule.flanks[p];
        gpu_arith::PositionPlan pp{};
        pp.left_slot = schedule.keep_slot[f.left];
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
            TreeAt t{n, static_cast<int>(marked.size()), 0, 0, 0, 0, 0, 0};
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
        pp.branch_offset = static_cast<int>(branch_offset_[p]);
        branch_offset_[p + 1] = branch_offset_[p] + n_values;
        positions_.push_back(pp);
    }
}

std::size_t HostPlan::work_doubles() const {
    std::size_t const n = tri_size(K_);
    std::size_t const K = static_cast<std::size_t>(K_);
    return n * (3 + static_cast<std::size_t>(n_kept_)) + (pair_posteriors_ ? 0 : n) + 2 * K + 4 * K + 1 +
           3 * static_cast<std::size_t>(max_nodes_);
}

std::size_t HostPlan::shared_doubles() const {
    return tri_size(K_) + 6 * static_cast<std::size_t>(K_) + 1 + 3 * static_cast<std::size_t>(max_nodes_);
}

std::size_t HostPlan::result_doubles() const {
    std::size_t const P = positions_.size();
    return P * K_ + branch_offset_[P] + (pair_posteriors_ ? P * tri_size(K_) : 0);
}

HostPlan::Arrays HostPlan::arrays() const {
    return {{&panel_.alleles, &panel_.stay, &panel_.jump, &emission_}, {&keep_slot_, &by_right_start_, &by_right_, &tree_ints_},
            &positions_};
}

std::vector<gpu_arith::TreeView> HostPlan::tree_views(const int* ints) const {
    std::vector<gpu_arith::TreeView> views;
    for (TreeAt const& t : trees_)
        views.push_back({t.n_nodes, ints + t.child_a, ints + t.child_b, ints + t.lo, ints + t.hi, ints + t.order,
                         ints + t.marked, t.n_marked});
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
    plan.positions = at.positions;
    plan.trees = at.trees;
    plan.every_posterior = pair_posteriors_;
    return plan;
}

gpu_arith::Plan HostPlan::bind_host(std::vector<gpu_arith::TreeView>& views) const {
    views = tree_views(tree_ints_.data());
    return bind({{panel_.alleles.data(), panel_.stay.data(), panel_.jump.data(), emission_.data()},
                 {keep_slot_.data(), by_right_start_.data(), by_right_.data(), tree_ints_.data()},
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
    double* next = w.kept + n * n_kept_;
    if (pair_posteriors_) {
        w.P = carve_result(result).pair_posteriors;
    } else {
        w.P = next;
        next += n;
    }
    w.R0 = next;
    w.R1 = w.R0 + K_;
    w.work = w.R1 + K_;
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
