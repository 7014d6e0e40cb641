#include "engine/cpu_engine.h"

#include <algorithm>
#include <atomic>

#include "parallel/parallel.h"

namespace {

// Per-thread scratch for the branch sums, with the pair array they reorder
// the posterior into.
struct branch_scratch {
    std::vector<double> both, one, work, reordered;
    explicit branch_scratch(std::vector<position_tree> const& trees) {
        std::size_t most = 0;
        for (auto const& t : trees) most = std::max(most, static_cast<std::size_t>(t.layout.n_nodes()));
        both.resize(most);
        one.resize(most);
        work.resize(2 * most);
        if (!trees.empty()) reordered.resize(hmm_kernel::tri_size(trees.front().layout.K));
    }
};

void fill_record(engine_work const& work, int individual, hmm_kernel::Workspace& workspace, branch_scratch& scratch,
                 double* record) {
    result_layout const& layout = *work.layout;
    int const K = layout.K;
    bool const with_trees = !work.trees->empty();
    auto sink = [&](int p, double const* pair_posterior, double const* haplotype_probs) {
        double* probs = record + layout.haplotypes_at(p);
        std::copy(haplotype_probs, haplotype_probs + K, probs);
        if (with_trees) {
            position_tree const& tree = (*work.trees)[p];
            hmm_kernel::branch_probabilities(tree.layout, pair_posterior, probs, scratch.both.data(),
                                             scratch.one.data(), scratch.work.data(), scratch.reordered.data());
            double* values = record + layout.branches_at(p);
            for (int node : tree.marked) {
                *values++ = scratch.both[node];
                *values++ = scratch.one[node];
            }
        }
        if (layout.pair_matrices) std::copy(pair_posterior, pair_posterior + layout.pair_size(), record + layout.pairs_at(p));
    };
    workspace.run(*work.panel, *work.schedule, work.panel->genotypes_of(individual), sink);
}

}  // namespace

void compute_record(engine_work const& work, int individual, hmm_kernel::Workspace& workspace, double* record) {
    branch_scratch scratch(*work.trees);
    fill_record(work, individual, workspace, scratch, record);
}

int engine_threads(int threads, int individuals) { return std::max(1, std::min(threads, individuals)); }

void run_cpu_engine(engine_work const& work, int first, int last, int threads, result_sink& sink,
                    progress_listener* progress) {
    std::atomic<int> next{first};
    std::atomic<bool> failed{false};
    run_workers(engine_threads(threads, last - first), [&](int worker) {
        try {
            hmm_kernel::Workspace workspace;
            branch_scratch scratch(*work.trees);
            std::vector<double> record(work.layout->record_size());
            for (int n; !failed && (n = next.fetch_add(1)) < last;) {
                fill_record(work, n, workspace, scratch, record.data());
                sink.take(worker, n, record.data());
                if (progress) progress->individual_done();
            }
        } catch (...) {
            failed = true;
            throw;
        }
    });
}
