// Runs on the GPU engine feed the same result sink as the CPU engine: each
// individual's device results become the record the CPU engine would have
// made, so that the writers, chunk files and progress line do not know which
// engine ran.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "engine/cpu_engine.h"
#include "engine/gpu_engine.h"

// Copies one individual's device results into a record in layout's order.
// branch_offsets[p] is where position p's branch values start in the
// device's branch array.
void assemble_record(result_layout const& layout, std::vector<std::size_t> const& branch_offsets,
                     hmm_gpu::IndividualResult const& result, double* record);

class gpu_record_engine {
public:
    // Uploads the run to the device. Throws run_error ("Cannot run with
    // -gpu: ...") when the device cannot take it.
    explicit gpu_record_engine(engine_work const& work);
    ~gpu_record_engine();
    gpu_record_engine(gpu_record_engine const&) = delete;
    gpu_record_engine& operator=(gpu_record_engine const&) = delete;

    // Individuals first .. last - 1; the records reach the sink from the
    // calling thread as worker 0, in individual order. Throws run_error on a
    // device failure.
    void run(int first, int last, result_sink& sink, progress_listener* progress);

private:
    engine_work const& work_;
    std::vector<hmm_kernel::BranchLayout> layouts_;
    std::vector<std::vector<int>> marked_;
    std::vector<std::size_t> branch_offsets_;
    std::unique_ptr<hmm_gpu::Engine> engine_;
};
