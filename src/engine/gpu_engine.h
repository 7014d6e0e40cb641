// The GPU engine: both passes, the pair posteriors and their summaries for
// batches of individuals on an NVIDIA device, with the CPU kernel's results
// bit for bit. Builds without CUDA get a stub that reports why it cannot run.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/gpu_plan.h"
#include "engine/kernel.h"

namespace hmm_gpu {

class gpu_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Empty when the engine can run here; otherwise the cause (no CUDA in this
// build, no driver, no device, a device too old).
std::string unavailable_reason();

// One individual's results, in the CPU worker's layout; the pointers are
// valid during the callback only.
struct IndividualResult {
    int individual = -1;
    const double* haplotype_probs = nullptr;  // positions x K
    const double* branches = nullptr;         // position p's both/one pairs from branch_offset(p)
    const double* pair_posteriors = nullptr;  // positions x K(K+1)/2, or null
};

class Engine {
public:
    // Uploads the panel and plan. force_global_memory picks the global-memory
    // kernel even where the pair states fit in shared memory; kept_slots_limit
    // (when positive) keeps at most that many forward arrays, as on a device
    // with less memory. Throws gpu_error when the device cannot take the run.
    Engine(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, Outputs const& outputs,
           bool force_global_memory = false, int kept_slots_limit = 0);
    ~Engine();
    Engine(Engine const&) = delete;
    Engine& operator=(Engine const&) = delete;

    // Runs the individuals in batches and hands each one's results to
    // consume, in the order given. Transfers and the next batch's kernels
    // overlap with consume. Throws gpu_error on a device failure.
    void run(std::vector<int> const& individuals, std::function<void(IndividualResult const&)> const& consume);

    std::size_t branch_offset(int position) const;
    bool shared_memory_kernel() const;
    int batch_size() const;
    int kept_slots() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace hmm_gpu
