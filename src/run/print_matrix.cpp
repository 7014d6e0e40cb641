// The matrix run: selects the positions, runs the engine over the
// individuals (all, or one chunk of them), and writes the result files from
// the records the engine left on disk; or, with "-merge", writes them from the
// chunks' partial results.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>

#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "engine/cpu_engine.h"
#include "engine/gpu_records.h"
#include "io/badfilename.h"
#include "results/partial_results.h"
#include "results/result_files.h"
#include "results/writers.h"
#include "run/hmm.h"
#include "run/memory_check.h"
#include "run/positions.h"

namespace fs = boost::filesystem;

namespace {

// Redraws the progress line once per finished individual, with counts that
// rise by one whatever order the workers finish in.
class ordered_progress : public progress_listener {
public:
    ordered_progress(std::function<void(int, int)> const& draw, int total) : draw_(draw), total_(total) {
        if (draw_) draw_(0, total_);
    }
    void individual_done() override {
        if (!draw_) return;
        std::lock_guard<std::mutex> lock(mutex_);
        draw_(++done_, total_);
    }

private:
    std::function<void(int, int)> const& draw_;
    int total_;
    int done_ = 0;
    std::mutex mutex_;
};

// A folder beside the outputs for the records of a whole run, removed with
// everything in it when the run ends (on errors too).
class work_folder {
public:
    explicit work_folder(fs::path const& output)
        : path_(output.string() + ".work" + std::to_string(static_cast<long>(::getpid()))) {
        boost::system::error_code error;
        fs::create_directories(path_, error);
        if (error) throw badfilename(path_.string(), "can't create the work folder: " + error.message());
    }
    ~work_folder() {
        boost::system::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string file(std::string const& name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

// The result files of a run, from its records: .full_matrix files (which a
// run without records leaves deleted), the matrix file, the pardo files.
void write_results(HMM& run, result_file_reader const& records, result_layout const& layout,
                   std::map<double, HMM::matrix_data>& positions, std::vector<output_position> const& outputs,
                   LSMatrixParameters const& parameters) {
    int const threads = std::max(1, parameters.threads);
    bool const strict = parameters.strict;
    if (parameters.print_matrix) write_full_matrix_files(records, layout, outputs, threads, strict);
    auto sums = sum_haplotype_probabilities(records, layout, threads);
    std::size_t p = 0;
    for (auto& entry : positions) entry.second.haplotype_sums = std::move(sums[p++]);
    run.print_matrix_private(positions, parameters.output_file, strict);
    if (parameters.tavlo_input) run.output_pardo(records, layout, outputs, threads, parameters.pardo_gz, strict);
}

// A marked branch with no results stops the run at the first individual, at
// that position: the .full_matrix blocks up to it are written, as they would
// have been by then.
[[noreturn]] void stop_at_missing_branch(engine_work const& work, int individual, int failing,
                                         std::vector<output_position> const& outputs, bool write_blocks, bool strict) {
    if (write_blocks) {
        hmm_kernel::Workspace workspace;
        std::vector<double> record(work.layout->record_size());
        compute_record(work, individual, workspace, record.data());
        std::string block;
        for (int p = 0; p <= failing; ++p) {
            block.clear();
            append_full_matrix_block(block, record.data() + work.layout->pairs_at(p), work.layout->K);
            output_file out(outputs[p].name + ".full_matrix", output_file::mode::append);
            if (strict) out.require_open();
            out.write(block);
            out.finish();
        }
    }
    std::cout << "pardo data does not contain this SNP." << std::endl;
    std::fflush(stdout);
    std::_Exit(1);
}

}  // namespace

void HMM::print_matrix(std::map<double, std::string>& trees, LSMatrixParameters const& parameters) {
    int const K = n_haplotypes;
    int const N = std::max(n_individuals, 0);
    bool const chunk = is_chunk_run(parameters);
    bool const merge = is_merge_run(parameters);

    // A chunk run writes none of the run's own files.
    auto positions = select_positions(*this, trees, parameters, parameters.print_matrix && !chunk);
    std::vector<position_tree> position_trees;
    int const failing =
        parameters.tavlo_input ? parse_position_trees(*this, positions, position_trees, !merge && !parameters.gpu) : -1;
    std::vector<output_position> const outputs = describe_outputs(positions);
    std::vector<int> branch_counts;
    for (auto const& out : outputs) branch_counts.push_back(static_cast<int>(out.branch_ids.size()));
    result_layout const layout(std::max(K, 0), branch_counts, parameters.print_matrix);

    if (merge) {
        if (failing >= 0 && N > 0) {
            std::cout << "pardo data does not contain this SNP." << std::endl;
            std::fflush(stdout);
            std::_Exit(1);
        }
        std::cout << "Merging the partial results of " << parameters.merge_count << " chunk runs ... " << std::flush;
        auto const parts = read_chunk_indexes(parameters, N, layout);
        result_file_reader const records(parts, 0, N, layout.record_size());
        std::cout << "done" << std::endl;
        write_results(*this, records, layout, positions, outputs, parameters);
        std::cout << std::endl << "finished" << std::endl;
        return;
    }

    hmm_kernel::Panel const panel = take_panel(*this);
    std::vector<double> position_list;
    for (auto const& out : outputs) position_list.push_back(out.t);
    hmm_kernel::Schedule const schedule(panel.L, find_position_flanks(*this, position_list));
    engine_work const work{&panel, &schedule, &position_trees, &layout};

    auto const individuals = chunk ? chunk_individuals(parameters.chunk_index, parameters.chunk_count, N)
                                   : std::make_pair(0, N);
    int const count = individuals.second - individuals.first;
    if (count > 0 && (individuals.first < panel.first_held || individuals.second > panel.first_held + panel.n_held))
        throw run_error("ERROR!!! the genotypes of individuals " + std::to_string(individuals.first + 1) + " to " +
                        std::to_string(individuals.second) + " were not kept while reading " +
                        parameters.genotype_file.string() + ".");
    int const threads = engine_threads(parameters.threads, count);

    run_size size;
    size.K = K;
    size.L = panel.L;
    size.N = N;
    size.held = panel.n_held;
    size.positions = static_cast<int>(outputs.size());
    // Beyond the workspace's budget, forward arrays are recomputed, not kept.
    size.kept_forward_arrays =
        std::min(schedule.n_kept, hmm_kernel::Workspace::kept_slots(K, hmm_kernel::default_kept_budget));
    size.threads = threads;
    size.record_values = layout.record_size();
    check_memory(estimate_peak_memory(size), available_memory(), threads, parameters.strict, std::cout);

    // With -gpu the device computes the records and this thread alone hands
    // them on; the writers still format them on every thread.
    std::unique_ptr<gpu_record_engine> gpu;
    if (parameters.gpu && failing < 0 && count > 0) gpu = std::make_unique<gpu_record_engine>(work);
    int const record_workers = gpu ? 1 : threads;
    auto run_engine = [&](int first, int last, result_sink& sink, progress_listener& progress) {
        if (gpu)
            gpu->run(first, last, sink, &progress);
        else
            run_cpu_engine(work, first, last, threads, sink, &progress);
    };

    // The progress line shows the store's count as it stands: -1 when the
    // genotype file placed no SNP (nobody is then processed).
    std::cout << "Performing forward and backward calculations (this may take a while, please be patient)."
              << std::endl;
    ordered_progress progress(draw_progress, chunk ? count : n_individuals);
    if (failing >= 0 && count > 0)
        stop_at_missing_branch(work, individuals.first, failing, outputs, parameters.print_matrix && !chunk,
                               parameters.strict);

    if (chunk) {
        std::string const base = chunk_name(parameters, parameters.chunk_index, parameters.chunk_count) + ".part";
        write_chunk_index(parameters, N, individuals, layout, {}, false);
        result_file_writer records(base, record_workers, layout.record_size());
        run_engine(individuals.first, individuals.second, records, progress);
        records.finish();
        std::cout << std::endl << std::endl << "writing partial results ... " << std::flush;
        write_chunk_index(parameters, N, individuals, layout, records.parts(), true);
        std::cout << "done" << std::endl;
    } else {
        work_folder const folder(parameters.output_file);
        result_file_writer records(folder.file("records"), record_workers, layout.record_size());
        run_engine(0, N, records, progress);
        records.finish();
        result_file_reader const reader(records.parts(), 0, N, layout.record_size());
        write_results(*this, reader, layout, positions, outputs, parameters);
    }
    std::cout << std::endl << "finished" << std::endl;
}

void HMM::output_pardo(result_file_reader const& records, result_layout const& layout,
                       std::vector<output_position> const& positions, int threads, bool gzip, bool strict) {
    write_pardo_files(records, layout, positions, threads, gzip, strict);
}

void HMM::print_matrix_private(std::map<double, matrix_data>& positions, boost::filesystem::path const& output,
                               bool strict) {
    bool const gzip = output.extension().string() == ".gz";
    std::cout << (gzip ? "\n\nwriting matrix file in gzip mode ... " : "\n\nwriting matrix file ... ") << std::flush;
    output_file out(output);
    // An unopenable gzip file is not reported (its lines are lost), except
    // under -strict.
    if (!out.is_open() && !gzip) throw badfilename(output.string(), "can't open file.");
    if (strict) out.require_open();
    std::vector<matrix_line> lines;
    for (auto const& entry : positions) lines.push_back({entry.first, &entry.second.haplotype_sums});
    write_matrix_lines(out, lines);
    out.finish();
    std::cout << "done" << std::endl;
}

void HMM::output_details(std::string const& file_name, std::vector<std::vector<double>> const& values) {
    write_details_file(file_name, values);
}
