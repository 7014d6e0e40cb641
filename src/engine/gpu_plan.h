// Host side of the GPU engine's inputs: the run's panel, schedule and trees
// flattened into the plain arrays the device works from, and the buffers of
// one individual. Built without CUDA, so that the host can run the device's
// arithmetic (gpu_arith.h) on the same plan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
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

// The sizes of a run that decide its memory on the device.
struct RunShape {
    int K = 0, L = 0, n_positions = 0;
    int n_kept = 0;              // forward arrays the positions need
    bool checkpoints = true;     // false: positions in an order that needs every one kept
    int max_nodes = 0;           // of the largest tree
    std::size_t branch_values = 0;
    bool pair_posteriors = false;
};

// Doubles of one individual's buffers (gpu_arith::Work) with kept_slots
// forward arrays kept at once, of its results (m, branch values, pair
// posteriors), and of the part of the work the shared-memory kernel keeps on
// chip (gpu_arith::carve_on_chip).
std::size_t work_doubles(RunShape const& shape, int kept_slots);
std::size_t result_doubles(RunShape const& shape);
std::size_t shared_doubles(RunShape const& shape);

// Threads per block: the shared-memory kernel holds at most a few hundred
// haplotypes, and fewer threads leave each more registers.
constexpr int max_threads_shared = 256;
constexpr int max_threads_global = 512;

// What the device offers a run.
struct DeviceLimits {
    std::size_t free_bytes = 0;        // device memory free
    std::size_t shared_per_block = 0;  // shared memory a block may ask for
    int multiprocessors = 1;
    std::size_t host_result_bytes = std::size_t(1) << 30;  // pinned host memory for a batch's results
};

// How a run goes on the device: which kernel, how many forward arrays each
// individual keeps (the CPU's checkpoint plan recomputes the others), how many
// individuals a batch holds (two batches are in flight), or why it cannot go.
struct LaunchPlan {
    std::string refusal;  // empty when the run fits
    bool shared = false;
    int threads = 32;
    int kept_slots = 0;
    int batch = 0;
    std::size_t individual_bytes = 0;  // device memory of one individual
};

// Keeps every forward array where twice the multiprocessors' count of
// individuals (or all N, or as many results as the host memory takes, if
// fewer) still fit in a batch; otherwise as many as let that many fit, and at
// least one.
LaunchPlan plan_launch(RunShape const& shape, DeviceLimits const& device, int N, bool force_global = false);

class HostPlan {
public:
    // Every exp of the posterior's distance step is taken here, by the CPU
    // kernel's code. The panel must outlive the plan. Throws std::invalid_argument when the schedule, layouts
    // or marked nodes do not fit the panel.
    // Every forward array is kept until set_kept_slots says otherwise.
    HostPlan(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, Outputs const& outputs);

    RunShape shape() const;
    // Keeps at most this many forward arrays at once (at least one; all of
    // them where the positions' order needs it), by the CPU's checkpoint plan.
    void set_kept_slots(int slots);
    int kept_slots() const { return kept_slots_; }

    int K() const { return K_; }
    int L() const { return L_; }
    int n_positions() const { return static_cast<int>(positions_.size()); }
    bool pair_posteriors() const { return pair_posteriors_; }
    // Offset of position p's branch values in an individual's branch array;
    // branch_offset(n_positions()) is the array's length.
    std::size_t branch_offset(int p) const { return branch_offset_[p]; }

    // Doubles of one individual's buffers and results, and of the part the
    // shared-memory kernel keeps on chip.
    std::size_t work_doubles() const { return hmm_gpu::work_doubles(shape(), kept_slots_); }
    std::size_t result_doubles() const { return hmm_gpu::result_doubles(shape()); }
    std::size_t shared_doubles() const { return hmm_gpu::shared_doubles(shape()); }

    // The arrays the device reads, in upload order, and the plan over them
    // once they lie at the given addresses (host or device).
    struct Arrays {
        std::vector<double> const* doubles[4];  // alleles, stay, jump, emission
        // keep_slot, by_right_start, by_right, tree ints, checkpoint ints
        std::vector<int> const* ints[5];
        std::vector<std::size_t> const* sizes;  // the trees' row starts
        std::vector<gpu_arith::PositionPlan> const* positions;
    };
    Arrays arrays() const;
    struct Addresses {
        const double* doubles[4];
        const int* ints[5];
        const std::size_t* sizes;
        const gpu_arith::PositionPlan* positions;
        const gpu_arith::TreeView* trees;
    };
    // The trees' views for tree ints and sizes at the given addresses.
    std::vector<gpu_arith::TreeView> tree_views(const int* tree_ints, const std::size_t* tree_sizes) const;
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
    int K_, L_, n_kept_, max_nodes_ = 0, kept_slots_ = 0, lowest_ = 0;
    bool pair_posteriors_, descending_ = true;
    hmm_kernel::Panel const& panel_;
    std::vector<double> emission_;
    std::vector<int> keep_slot_, by_right_start_, by_right_, tree_ints_, checkpoint_ints_;
    std::vector<std::size_t> tree_sizes_;
    std::vector<gpu_arith::PositionPlan> positions_;
    struct TreeAt {
        int n_nodes, n_marked;
        std::size_t child_a, child_b, lo, hi, order, marked, row_start;
    };
    struct CheckpointAt {
        int n_sweeps;
        std::size_t from, to, store_start, store, slot_of, sweeps_before, kept_snp;
    } checkpoint_{};
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
