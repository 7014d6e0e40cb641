// Benchmark: generates a deterministic data set, then times the whole program
// and the engine alone, with 1 and 2 threads (or the counts given).
//
//   ketra_bench [--K n] [--L n] [--N n] [--positions n] [--seed n]
//               [--threads "1 2"] [--dir path] [--ketra path/to/ketra]
//               [--baseline n]   (individuals timed with the straightforward engine; 0 = skip)
//               [--inputs-only 1] (write the data set, print the ketra arguments for it, stop)
//               [--gpu 1]         (also time the GPU engine alone)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench_inputs.h"
#include "data/data.h"
#include "engine/gpu_engine.h"
#include "run/hmm.h"
#include "straightforward.h"
#include "trees/tree_map.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::vector<std::string> split(std::string const& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

// Runs ketra with stdout to a log; returns wall seconds and the child's peak RSS in MiB.
bool run_program(std::string const& ketra, std::vector<std::string> const& args, std::string const& log,
                 double& wall, double& peak_mib) {
    auto const start = std::chrono::steady_clock::now();
    std::fflush(stdout);
    pid_t const pid = fork();
    if (pid == 0) {
        std::FILE* out = std::freopen(log.c_str(), "w", stdout);
        (void)out;
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(ketra.c_str()));
        for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(ketra.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    wall = seconds_since(start);
    peak_mib = usage.ru_maxrss / 1024.0;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Evenly spread positions, as the generated tree map has them.
hmm_kernel::Schedule engine_schedule(HMM const& hmm, hmm_kernel::Panel const& panel, int n_positions) {
    std::vector<double> positions;
    double const first = hmm.snps.begin()->first, last = hmm.snps.rbegin()->first;
    for (int t = 0; t < n_positions; ++t) positions.push_back(first + (last - first) * (t + 0.5) / n_positions);
    return hmm_kernel::Schedule(panel.L, find_position_flanks(hmm, positions));
}

// Forward and backward passes plus posteriors and haplotype probabilities
// for every individual at the given number of positions, on the given number
// of threads; returns wall seconds.
double time_engine(HMM const& hmm, int n_positions, int threads) {
    hmm_kernel::Panel const panel = make_panel(hmm);
    hmm_kernel::Schedule const schedule = engine_schedule(hmm, panel, n_positions);
    int const N = panel.N;
    std::atomic<int> next{0};
    std::atomic<long> checksum{0};
    auto worker = [&] {
        hmm_kernel::Workspace workspace;
        double sum = 0;
        auto sink = [&](int, double const*, double const* m) { sum += m[0]; };
        for (int n; (n = next.fetch_add(1)) < N;) workspace.run(panel, schedule, panel.genotypes_of(n), sink);
        checksum += static_cast<long>(sum);
    };
    auto const start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int i = 1; i < threads; ++i) pool.emplace_back(worker);
    worker();
    for (auto& t : pool) t.join();
    return seconds_since(start);
}

// The bare forward step on this panel (first individual, in place): best ns
// per pair-state update over a few passes.
double bare_forward_step_ns(HMM const& hmm) {
    hmm_kernel::Panel const panel = make_panel(hmm);
    int const K = panel.K, L = panel.L;
    if (L < 2 || panel.N == 0) return 0.0;
    std::vector<double> F(hmm_kernel::tri_size(K)), R[2] = {std::vector<double>(K), std::vector<double>(K)};
    const std::uint8_t* g = panel.genotypes_of(0);
    double best = 1e30;
    for (int rep = 0; rep < 3; ++rep) {
        int r = 0;
        double total = hmm_kernel::forward_first(K, panel.h(0), panel.emission[g[0]], F.data(), R[r].data());
        auto const start = std::chrono::steady_clock::now();
        for (int s = 1; s < L; ++s) {
            total = hmm_kernel::forward_step(K, panel.stay[s], panel.jump[s], F.data(), R[r].data(), total,
                                             panel.h(s), panel.emission[g[s]], F.data(), R[1 - r].data());
            r = 1 - r;
        }
        best = std::min(best, seconds_since(start) * 1e9 / (static_cast<double>(F.size()) * (L - 1)));
    }
    return best;
}

// The same work on the GPU engine, the upload of the panel included.
double time_gpu_engine(HMM const& hmm, int n_positions) {
    hmm_kernel::Panel const panel = make_panel(hmm);
    hmm_kernel::Schedule const schedule = engine_schedule(hmm, panel, n_positions);
    auto const start = std::chrono::steady_clock::now();
    hmm_gpu::Engine engine(panel, schedule, hmm_gpu::Outputs{});
    std::vector<int> individuals(panel.N);
    for (int n = 0; n < panel.N; ++n) individuals[n] = n;
    double sum = 0;
    engine.run(individuals, [&](hmm_gpu::IndividualResult const& r) { sum += r.haplotype_probs[0]; });
    double const wall = seconds_since(start);
    if (!(sum >= 0)) std::printf("(GPU results are not numbers)\n");
    return wall;
}

}  // namespace

int main(int argc, char** argv) {
    bench_sizes sizes;
    std::string thread_list = "1 2";
    std::string dir = "bench-data";
    std::string ketra = "./ketra";
    int baseline_individuals = 10;
    bool inputs_only = false;
    bool gpu = false;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string const flag = argv[i], value = argv[i + 1];
        if (flag == "--K") sizes.haplotypes = std::atoi(value.c_str());
        else if (flag == "--L") sizes.snps = std::atoi(value.c_str());
        else if (flag == "--N") sizes.individuals = std::atoi(value.c_str());
        else if (flag == "--positions") sizes.positions = std::atoi(value.c_str());
        else if (flag == "--seed") sizes.seed = static_cast<std::uint32_t>(std::atol(value.c_str()));
        else if (flag == "--threads") thread_list = value;
        else if (flag == "--dir") dir = value;
        else if (flag == "--ketra") ketra = value;
        else if (flag == "--baseline") baseline_individuals = std::atoi(value.c_str());
        else if (flag == "--inputs-only") inputs_only = value != "0";
        else if (flag == "--gpu") gpu = value != "0";
        else {
            std::cout << "unknown option " << flag << "\n";
            return 2;
        }
    }
    boost::filesystem::create_directories(dir);
    std::string const args = write_bench_inputs(sizes, dir);
    if (inputs_only) {
        std::printf("%s\n", args.c_str());
        return 0;
    }
    int const K = sizes.haplotypes;
    double const updates = 2.0 * sizes.individuals * sizes.snps * (K * (K + 1.0) / 2.0);

    std::printf("data: K = %d haplotypes, L = %d SNPs, N = %d individuals, %d tree positions (seed %u)\n",
                K, sizes.snps, sizes.individuals, sizes.positions, sizes.seed);
    std::printf("pair-state updates (forward + backward): %.3g\n\n", updates);

    std::printf("whole run (ketra %s -tavlo_input):\n", "...");
    std::printf("%8s %12s %16s %14s %14s\n", "threads", "wall s", "updates/s", "ns/update", "peak RSS MiB");
    double whole_one_thread = 0.0;
    for (std::string const& t : split(thread_list)) {
        std::vector<std::string> run_args = split(args);
        run_args.insert(run_args.end(), {"-o", dir + "/out-t" + t + "/matrix.txt", "-threads", t});
        // An earlier run's files would be truncated, or written back to the
        // disk, while this run is timed: neither is this run's cost.
        boost::filesystem::remove_all(dir + "/out-t" + t);
        ::sync();
        double wall = 0, peak = 0;
        bool const ok = run_program(ketra, run_args, dir + "/log-t" + t + ".txt", wall, peak);
        if (t == "1") whole_one_thread = wall / updates * 1e9;
        std::printf("%8s %12.2f %16.3g %14.3f %14.1f%s\n", t.c_str(), wall, updates / wall, wall / updates * 1e9, peak,
                    ok ? "" : "  (run failed: see log)");
    }

    // The engine alone: load the data once (console output discarded), then
    // time the passes and posteriors.
    std::ostringstream discard;
    std::streambuf* const saved = std::cout.rdbuf(discard.rdbuf());
    LSMatrixParameters parameters;
    std::vector<std::string> load_args = split(args);
    load_args.insert(load_args.begin(), "ketra");
    load_args.insert(load_args.end(), {"-o", dir + "/engine-only"});
    std::vector<char*> load_argv;
    for (auto& a : load_args) load_argv.push_back(&a[0]);
    parameters.process_parameters(static_cast<int>(load_argv.size()), load_argv.data());
    parameters.aux_filename = dir + "/engine-only.aux";
    HMM hmm;
    hmm = data(parameters);
    std::cout.rdbuf(saved);

    std::printf("\nengine alone (forward, backward, posteriors and haplotype sums at %d positions):\n",
                sizes.positions);
    std::printf("%8s %12s %16s %14s\n", "threads", "wall s", "updates/s", "ns/update");
    double engine_one_thread = 0.0;
    for (std::string const& t : split(thread_list)) {
        double const wall = time_engine(hmm, sizes.positions, std::atoi(t.c_str()));
        if (t == "1") engine_one_thread = wall / updates * 1e9;
        std::printf("%8s %12.2f %16.3g %14.3f\n", t.c_str(), wall, updates / wall, wall / updates * 1e9);
    }
    if (gpu) {
        try {
            double const wall = time_gpu_engine(hmm, sizes.positions);
            std::printf("%8s %12.2f %16.3g %14.3f\n", "GPU", wall, updates / wall, wall / updates * 1e9);
        } catch (hmm_gpu::gpu_error const& e) {
            std::printf("%8s %s\n", "GPU", e.what());
        }
    }
    double const bare = bare_forward_step_ns(hmm);
    std::printf("\nbare forward step on this panel: %.3f ns/update\n", bare);
    if (bare > 0 && whole_one_thread > 0)
        std::printf("whole run, 1 thread / bare step: %.2f\n", whole_one_thread / bare);
    if (bare > 0 && engine_one_thread > 0)
        std::printf("engine alone, 1 thread / bare step: %.2f\n", engine_one_thread / bare);
    // The straightforward engine, on a few individuals, scaled to all of them.
    if (baseline_individuals > 0) {
        std::map<double, std::string> trees;
        std::cout.rdbuf(discard.rdbuf());
        read_tree_map_file(parameters, trees);
        std::cout.rdbuf(saved);
        int const n = std::min(baseline_individuals, sizes.individuals);
        double const per = straightforward_seconds_per_individual(hmm, trees, n);
        double const all = per * sizes.individuals;
        std::printf("\nstraightforward engine (measured on %d individuals, scaled to %d; 1 thread):\n", n,
                    sizes.individuals);
        std::printf("%8s %12.2f %16.3g %14.3f\n", "1", all, updates / all, all / updates * 1e9);
    }
    rusage self{};
    getrusage(RUSAGE_SELF, &self);
    std::printf("engine process peak RSS: %.1f MiB (data store included)\n", self.ru_maxrss / 1024.0);
    return 0;
}
