// The CPU engine: runs the passes for a range of individuals on a pool of
// threads and hands each individual's record to a result sink.
#pragma once

#include <vector>

#include "engine/kernel.h"
#include "results/result_stream.h"

// A parsed tree as the per-branch sums need it.
struct position_tree {
    hmm_kernel::BranchLayout layout;
    std::vector<int> marked;  // node ids of the marked branches, ascending
};

struct engine_work {
    hmm_kernel::Panel const* panel = nullptr;
    hmm_kernel::Schedule const* schedule = nullptr;
    std::vector<position_tree> const* trees = nullptr;  // per position; empty without branch output
    result_layout const* layout = nullptr;
};

// Threads the engine uses for `individuals` individuals (workers 0 .. n - 1).
int engine_threads(int threads, int individuals);

// Individuals first .. last - 1. Each worker fills its own record and hands it
// to the sink; nothing waits for another individual to finish.
void run_cpu_engine(engine_work const& work, int first, int last, int threads, result_sink& sink,
                    progress_listener* progress);

// Computes one individual's record into `record` (layout.record_size() values).
void compute_record(engine_work const& work, int individual, hmm_kernel::Workspace& workspace, double* record);
