#include "engine/gpu_records.h"

#include <algorithm>

#include "io/run_error.h"

namespace {

// before: what the console line needs first (a failure during the run
// follows the progress line).
run_error cannot_run(hmm_gpu::gpu_error const& e, char const* before = "") {
    return run_error(before + std::string("Cannot run with -gpu: ") + e.what());
}

}  // namespace

void assemble_record(result_layout const& layout, std::vector<std::size_t> const& branch_offsets,
                     hmm_gpu::IndividualResult const& result, double* record) {
    std::size_t const K = static_cast<std::size_t>(layout.K);
    std::size_t const pairs = layout.pair_size();
    for (int p = 0; p < layout.positions(); ++p) {
        double const* probs = result.haplotype_probs + p * K;
        std::copy(probs, probs + K, record + layout.haplotypes_at(p));
        double const* branches = result.branches + branch_offsets[p];
        std::copy(branches, branches + 2 * static_cast<std::size_t>(layout.branches[p]), record + layout.branches_at(p));
        if (layout.pair_matrices) {
            double const* pair = result.pair_posteriors + p * pairs;
            std::copy(pair, pair + pairs, record + layout.pairs_at(p));
        }
    }
}

gpu_record_engine::gpu_record_engine(engine_work const& work) : work_(work) {
    for (position_tree const& tree : *work.trees) {
        layouts_.push_back(tree.layout);
        marked_.push_back(tree.marked);
    }
    hmm_gpu::Outputs const outputs{&layouts_, &marked_, work.layout->pair_matrices};
    try {
        engine_ = std::make_unique<hmm_gpu::Engine>(*work.panel, *work.schedule, outputs);
    } catch (hmm_gpu::gpu_error const& e) {
        throw cannot_run(e);
    }
    result_layout const& layout = *work.layout;
    for (int p = 0; p <= layout.positions(); ++p) branch_offsets_.push_back(engine_->branch_offset(p));
    // The device's branch array must hold exactly the record's branch values.
    for (int p = 0; p < layout.positions(); ++p)
        if (branch_offsets_[p + 1] - branch_offsets_[p] != 2 * static_cast<std::size_t>(layout.branches[p]))
            throw run_error("Cannot run with -gpu: the engine's branch values do not match the record layout");
}

gpu_record_engine::~gpu_record_engine() = default;

void gpu_record_engine::run(int first, int last, result_sink& sink, progress_listener* progress) {
    std::vector<int> individuals;
    for (int n = first; n < last; ++n) individuals.push_back(n);
    std::vector<double> record(work_.layout->record_size());
    try {
        engine_->run(individuals, [&](hmm_gpu::IndividualResult const& result) {
            assemble_record(*work_.layout, branch_offsets_, result, record.data());
            sink.take(0, result.individual, record.data());
            if (progress) progress->individual_done();
        });
    } catch (hmm_gpu::gpu_error const& e) {
        throw cannot_run(e, "\n");
    }
}
