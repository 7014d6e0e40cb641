// Host side of the GPU engine's inputs: the run's panel, schedule and trees
// flattened into the plain arrays the device works from, and the buffers of
// one individual. Built without CUDA, so that the host can run the device's
// arithmetic (gpu_arith.h) on the same plan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/gpu_arith.h"
#include "engine/kernel.h"

namespace hmm_gpu {

// What a run asks of the engine besides the panel and the schedule.
struct Outputs {
    // Per position (index into the schedule's flanks): the tree's layout and
    // the node ids whose both/one values are reported, in that order. Both
    // empty (or null) for no branch values.
    std::vector<hmm_kernel::BranchLayout> const* layouts = nullptr;
    std::vector<std::vector<int>> const* marked = nullptr;
    bool pair_posteriors = false;  // keep every position's pair posterior
};

class HostPlan {
public:
    // Every exp of the posterior's distance step is taken here, by the CPU
    // kernel's code. The panel must outlive the plan. Throws std::invalid_argument when the schedule, layouts
    // or marked nodes do not fit the panel.
    HostPlan(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, Outputs const& outputs);

    int K() const { return K_; }
    int L() const { return L_; }
    int n_positions() const { return static_cast<int>(positions_.size()); }
    bool pair_posteriors() const { return pair_posteriors_; }
    // Offset of position p's branch values in an individual's branch array;
    // branch_offset(n_positions()) is the array's length.
    std::size_t branch_offset(int p) const { return branch_offset_[p]; }

    // Doubles of one individual's buffers (gpu_arith::Work) and results.
    std::size_t work_doubles() const;
    std::size_t result_doubles() const;  // m, branch values, pair posteriors
    // Doubles of the buffers the shared-memory kernel keeps on chip: the pair
    // array, R0, R1 and work.
    std::size_t shared_doubles() const;

    // The arrays the device reads, in upload order, and the plan over them
    // once they lie at the given addresses (host or device).
    struct Arrays {
        std::vector<double> const* doubles[4];  // alleles, stay, jump, emission
        std::vector<int> const* ints[4];        // keep_slot, by_right_start, by_right, tree ints
        std::vector<gpu_arith::PositionPlan> const* positions;
    };
    Arrays arrays() const;
    struct Addresses {
        const double* doubles[4];
        const int* ints[4];
        const gpu_arith::PositionPlan* positions;
        const gpu_arith::TreeView* trees;
    };
    // The trees' views for tree ints at the given address.
    std::vector<gpu_arith::TreeView> tree_views(const int* tree_ints) const;
    gpu_arith::Plan bind(Addresses const& at) const;
    // The plan over this object's own arrays; views keeps the trees' views.
    gpu_arith::Plan bind_host(std::vector<gpu_arith::TreeView>& views) const;

    // Work and output of one individual carved from consecutive memory:
    // work_doubles() at work, result_doubles() at result (which also holds
    // the pair posteriors the work writes, when they are kept).
    gpu_arith::Work carve_work(double* work, double* result) const;
    struct ResultView {
        double* m;
        double* branches;
        double* pair_posteriors;  // null without pair posteriors
    };
    ResultView carve_result(double* result) const;

private:
    int K_, L_, n_kept_, max_nodes_ = 0;
    bool pair_posteriors_;
    hmm_kernel::Panel const& panel_;
    std::vector<double> emission_;
    std::vector<int> keep_slot_, by_right_start_, by_right_, tree_ints_;
    std::vector<gpu_arith::PositionPlan> positions_;
    struct TreeAt {
        int n_nodes, n_marked;
        std::size_t child_a, child_b, lo, hi, order, marked;
    };
    std::vector<TreeAt> trees_;
    std::vector<std::size_t> branch_offset_;
};

// One individual's buffers in host memory, for running the device arithmetic
// on the CPU.
struct HostIndividual {
    explicit HostIndividual(HostPlan const& plan);
    std::vector<double> work, result;
    int status = 0;
    gpu_arith::Work buffers;
    HostPlan::ResultView view;
    gpu_arith::Output output();
};

}  // namespace hmm_gpu
