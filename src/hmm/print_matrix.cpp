// The matrix run: every individual's passes, the per-position summaries, the
// progress line, and the writers at the end.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include <boost/filesystem/operations.hpp>

#include "app/progress.h"
#include "hmm/hmm.h"
#include "hmm/workers.h"
#include "hmm/writers.h"

namespace {

// What one individual contributes, held until it is committed in individual order.
struct individual_result {
    std::vector<double> haplotype_probs;      // positions x K
    std::vector<std::string> full_matrix;     // per position, with "-print_matrix"
    std::vector<std::vector<double>> branches;  // per position: both, one for each marked branch
    int failed_position = -1;                 // position of a branch without results
};

// Appends .full_matrix text, keeping files open while there are few of them.
class full_matrix_files {
public:
    void append(std::string const& file_name, std::string const& text) {
        auto found = open_.find(file_name);
        if (found == open_.end() && open_.size() < max_open) {
            found = open_.emplace(file_name, std::make_unique<std::ofstream>(file_name, std::ios::app)).first;
        }
        if (found != open_.end()) {
            found->second->write(text.data(), static_cast<std::streamsize>(text.size()));
            return;
        }
        std::ofstream once(file_name, std::ios::app);
        once.write(text.data(), static_cast<std::streamsize>(text.size()));
    }

    // Flushes and closes every file (before the process ends without unwinding).
    void close_all() { open_.clear(); }

private:
    static constexpr std::size_t max_open = 200;
    std::map<std::string, std::unique_ptr<std::ofstream>> open_;
};

void draw_progress(int done, int total) {
    std::cout << "\r" << get_progress_bar(60, static_cast<double>(done) / total) << std::setw(10) << done << "/"
              << total << std::flush;
}

}  // namespace

void HMM::print_matrix(std::map<double, std::string>& trees, LSMatrixParameters const& parameters) {
    int const K = n_haplotypes;
    int const N = std::max(n_individuals, 0);
    bool const detail = parameters.detail;
    bool const full_matrix = parameters.print_matrix;
    bool const tavlo = parameters.tavlo_input;

    std::vector<std::vector<double>> detail_template;
    if (detail) detail_template.assign(K, std::vector<double>(N, 0.0));

    // Select the tree positions that lie within the SNPs.
    std::map<double, matrix_data> positions;
    std::map<double, std::vector<std::vector<double>>> details;
    {
        std::ofstream aux(parameters.aux_filename, std::ios::app);
        for (auto const& entry : trees) {
            double const t = entry.first;
            if (!snps.empty() && snps.begin()->first <= t && t <= snps.rbegin()->first) {
                matrix_data position;
                std::ostringstream name;
                name << parameters.output_file.string() << "." << std::fixed << std::setprecision(0) << t;
                position.name = name.str();
                position.haplotype_sums.assign(K, 0.0);
                position.tree = entry.second;
                if (detail) details[t] = detail_template;
                if (full_matrix) std::remove((position.name + ".full_matrix").c_str());
                positions.emplace(t, std::move(position));
            } else {
                aux << "position " << t << " ignored: no genotype or reference haplotype information" << "\n";
            }
        }
    }

    if (tavlo) {
        std::vector<branch_row> const row_template(N, branch_row{0.0, 0.0});
        for (auto& entry : positions) {
            matrix_data& position = entry.second;
            read_tree(position.tree, position.nodes, K);
            for (auto& n : position.nodes) {
                if (n.second.branch_length > 0) position.branch_genotypes[n.first] = row_template;
                // The per-branch sums work from the nodes' children; the leaf
                // sets (K entries per node, 2K nodes per tree) would otherwise
                // be the run's largest store.
                n.second.leaves_below.clear();
                n.second.leaves_outside.clear();
            }
        }
    }

    // The engine's view of the panel and of the positions, shared by all threads.
    hmm_kernel::Panel const panel = make_panel(*this);
    std::vector<double> position_list;
    std::vector<matrix_data*> position_data;
    for (auto& entry : positions) {
        position_list.push_back(entry.first);
        position_data.push_back(&entry.second);
    }
    hmm_kernel::Schedule const schedule(panel.L, find_position_flanks(*this, position_list));
    std::size_t const P = position_data.size();

    // Per position: the branch layout for the per-branch sums, the rows each
    // marked branch writes to, and whether a marked branch has no rows (which
    // stops the run).
    struct branch_target {
        int node;
        std::vector<branch_row>* rows;
    };
    std::vector<hmm_kernel::BranchLayout> layouts(tavlo ? P : 0);
    std::vector<std::vector<branch_target>> targets(tavlo ? P : 0);
    std::vector<bool> missing_branch(P, false);
    std::size_t max_nodes = 0;
    if (tavlo) {
        for (std::size_t p = 0; p < P; ++p) {
            matrix_data& position = *position_data[p];
            layouts[p] = make_branch_layout(position.nodes, K);
            max_nodes = std::max(max_nodes, static_cast<std::size_t>(layouts[p].n_nodes()));
            for (auto const& n : position.nodes) {
                if (n.second.branch_length == 0) continue;
                auto found = position.branch_genotypes.find(n.first);
                if (found == position.branch_genotypes.end()) {
                    missing_branch[p] = true;
                    break;
                }
                targets[p].push_back({n.first, &found->second});
            }
        }
    }
    std::vector<std::vector<std::vector<double>>*> detail_rows(detail ? P : 0);
    for (std::size_t p = 0; p < detail_rows.size(); ++p) detail_rows[p] = &details[position_list[p]];

    // The progress line shows the store's count as it stands: -1 when the
    // genotype file placed no SNP (the loops above and below then run for nobody).
    int const shown_total = n_individuals;
    std::cout << "Performing forward and backward calculations (this may take a while, please be patient)."
              << std::endl;
    draw_progress(0, shown_total);

    full_matrix_files full_matrix_out;
    std::mutex commit_mutex;
    std::condition_variable committed;
    int next_to_commit = 0;
    std::atomic<int> next_individual{0};

    // Adds individual n's results in individual order, so that sums and files
    // are the same whatever the number of threads. Workers write only their
    // own buffers; every shared result is written here, under the lock.
    auto commit = [&](int n, individual_result const& result) {
        for (std::size_t p = 0; p < P; ++p) {
            if (full_matrix) full_matrix_out.append(position_data[p]->name + ".full_matrix", result.full_matrix[p]);
            if (static_cast<int>(p) == result.failed_position) {
                full_matrix_out.close_all();
                std::cout << "pardo data does not contain this SNP." << std::endl;
                std::fflush(stdout);
                std::_Exit(1);
            }
            std::vector<double>& sums = position_data[p]->haplotype_sums;
            double const* m = result.haplotype_probs.data() + p * K;
            for (int k = 0; k < K; ++k) sums[k] += m[k];
            if (tavlo) {
                double const* values = result.branches[p].data();
                for (branch_target const& target : targets[p]) {
                    branch_row& row = (*target.rows)[n];
                    row[0] = *values++;
                    row[1] = *values++;
                }
            }
            if (detail) {
                std::vector<std::vector<double>>& d = *detail_rows[p];
                for (int k = 0; k < K; ++k) d[k][n] += m[k];
            }
        }
        draw_progress(n + 1, shown_total);
    };

    auto worker = [&]() {
        hmm_kernel::Workspace workspace;
        individual_result result;
        result.haplotype_probs.assign(P * K, 0.0);
        if (full_matrix) result.full_matrix.assign(P, std::string());
        if (tavlo) {
            result.branches.resize(P);
            for (std::size_t p = 0; p < P; ++p) result.branches[p].assign(2 * targets[p].size(), 0.0);
        }
        std::vector<double> both(max_nodes), one(max_nodes), work(2 * max_nodes);
        auto sink = [&](int p, double const* pair_posterior) {
            double* probs = result.haplotype_probs.data() + p * K;
            hmm_kernel::haplotype_probabilities(K, pair_posterior, probs);
            if (full_matrix) {
                result.full_matrix[p].clear();
                append_full_matrix_block(result.full_matrix[p], pair_posterior, K);
            }
            if (tavlo) {
                if (missing_branch[p]) {
                    if (result.failed_position < 0 || p < result.failed_position) result.failed_position = p;
                    return;
                }
                hmm_kernel::branch_probabilities(layouts[p], pair_posterior, probs, both.data(), one.data(),
                                                 work.data());
                double* values = result.branches[p].data();
                for (branch_target const& target : targets[p]) {
                    *values++ = both[target.node];
                    *values++ = one[target.node];
                }
            }
        };
        for (int n; (n = next_individual.fetch_add(1)) < N;) {
            result.failed_position = -1;
            workspace.run(panel, schedule, panel.genotypes_of(n), sink);
            std::unique_lock<std::mutex> lock(commit_mutex);
            committed.wait(lock, [&] { return next_to_commit == n; });
            commit(n, result);
            ++next_to_commit;
            committed.notify_all();
        }
    };

    run_workers(std::max(1, std::min(parameters.threads, N)), worker);

    print_matrix_private(positions, parameters.output_file, detail, details);
    if (tavlo) output_pardo(positions);
    std::cout << std::endl << "finished" << std::endl;
}
