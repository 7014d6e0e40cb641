// GPU runs against the CPU engine's records. Without a device: the device's
// arithmetic, run on the host by teams of one and three threads and assembled
// into records, must give the CPU records bit for bit, and -gpu must stop the
// run with its cause. With a device: the engine's batches are held to the same
// standard, and whole runs with -gpu (plain and split) must write the plain
// run's files byte for byte. KETRA_REQUIRE_GPU=1 (which the device check
// sets) turns every skip for want of a device into a failure.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/cpu_engine.h"
#include "engine/gpu_arith.h"
#include "engine/gpu_engine.h"
#include "engine/gpu_plan.h"
#include "engine/gpu_records.h"
#include "support/test_support.h"

using ketra_test::same_bits;

namespace {

// Skips the test without a usable device, or fails it under KETRA_REQUIRE_GPU=1.
#define SKIP_WITHOUT_DEVICE()                                                                  \
    do {                                                                                       \
        std::string const why = hmm_gpu::unavailable_reason();                                 \
        if (!why.empty()) {                                                                    \
            char const* required = std::getenv("KETRA_REQUIRE_GPU");                           \
            if (required && std::string(required) == "1") FAIL() << "KETRA_REQUIRE_GPU=1: " << why; \
            GTEST_SKIP() << why;                                                               \
        }                                                                                      \
    } while (0)

// The CPU engine's records and what the GPU plan needs to make the same ones.
struct RecordCheck {
    ketra_test::RunData run;
    result_layout layout;
    hmm_gpu::Outputs outputs;
    std::vector<std::size_t> offsets;  // branch values before each position
    std::vector<double> expected(int individual) const {
        std::vector<double> record(layout.record_size(), -1.0);
        hmm_kernel::Workspace workspace;
        compute_record(engine_work{&run.panel, &run.schedule, &run.trees, &layout}, individual, workspace,
                       record.data());
        return record;
    }
    std::vector<double> assembled(hmm_gpu::IndividualResult const& result) const {
        std::vector<double> record(layout.record_size(), -2.0);
        assemble_record(layout, offsets, result, record.data());
        return record;
    }
};

// Built in place: the outputs point into the run.
void set_up(RecordCheck& s, int K, int L, int N, double scale, bool trees, bool pairs, std::mt19937_64& rng) {
    s.run = ketra_test::make_run(K, L, N, scale, trees, rng);
    std::vector<int> branch_counts(s.run.schedule.flanks.size(), 0);
    for (std::size_t p = 0; p < s.run.trees.size(); ++p) branch_counts[p] = static_cast<int>(s.run.marked[p].size());
    s.layout = result_layout(K, branch_counts, pairs);
    s.outputs = hmm_gpu::Outputs{&s.run.layouts, &s.run.marked, pairs};
    hmm_gpu::HostPlan const plan(s.run.panel, s.run.schedule, s.outputs);
    for (int p = 0; p <= plan.n_positions(); ++p) s.offsets.push_back(plan.branch_offset(p));
}

TEST(GpuRecords, DeviceArithmeticAssemblesTheCpuRecords) {
    struct Case { int K, L; double scale; bool trees, pairs; int team; };
    Case const cases[] = {{1, 6, 1.0, true, true, 1},      {2, 1, 1.0, true, false, 3},  {5, 40, 1e-12, true, true, 3},
                          {9, 25, 1.0, false, true, 1},    {11, 60, 1e-30, true, false, 3}, {16, 12, 1e-3, true, true, 3},
                          {17, 30, 1e-45, true, true, 3}, {37, 10, 1e-90, true, true, 3},  {3, 8, 1e-120, true, true, 3}};
    std::mt19937_64 rng(23);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " L=" + std::to_string(c.L) + (c.trees ? " trees" : "") +
                     (c.pairs ? " pairs" : ""));
        int const N = 2;
        RecordCheck s;
        set_up(s, c.K, c.L, N, c.scale, c.trees, c.pairs, rng);
        hmm_gpu::HostPlan const plan(s.run.panel, s.run.schedule, s.outputs);
        std::vector<gpu_arith::TreeView> views;
        gpu_arith::Plan const bound = plan.bind_host(views);
        for (int n = 0; n < N; ++n) {
            hmm_gpu::HostIndividual device(plan);
            ketra_test::on_team(c.team, [&](auto const& team) {
                gpu_arith::run_individual(team, bound, s.run.panel.genotypes_of(n), device.buffers, device.output());
            });
            ASSERT_EQ(device.status, gpu_arith::status_ok);
            hmm_gpu::IndividualResult const result{n, device.view.m, device.view.branches, device.view.pair_posteriors};
            ASSERT_TRUE(same_bits(s.expected(n), s.assembled(result))) << "individual " << n;
        }
    }
}

TEST(GpuEngine, WithoutADeviceGpuRunsStopWithTheCause) {
    std::string const why = hmm_gpu::unavailable_reason();
    if (why.empty()) GTEST_SKIP() << "a usable GPU is present";
    // Stopped before any input is read: these files do not exist.
    ketra_test::TempDir dir;
    auto const r = ketra_test::run_ketra({"-h", "a.hap", "-l", "a.legend", "-m", "a.map", "-tree_file", "t.txt", "-g",
                                          "g.gen", "-o", "run", "-int", "100", "200", "-gpu"},
                                         dir.path().string());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(ketra_test::text_ends_with(r.out, "Cannot run with -gpu: " + why + "\nProgram terminated\n")) << r.out;
    EXPECT_EQ(r.out.find("reading"), std::string::npos) << r.out;
    EXPECT_TRUE(r.err.empty()) << r.err;
}

TEST(GpuEngine, BatchesGiveTheCpuRecords) {
    SKIP_WITHOUT_DEVICE();
    struct Case { int K, L, N; double scale; bool force_global, pairs; };
    Case const cases[] = {
        {1, 5, 3, 1.0, false, true},      {13, 50, 40, 1e-30, true, true},   {37, 80, 700, 1.0, false, false},
        {200, 120, 300, 1e-20, false, false}, {200, 40, 20, 1.0, true, true},
        {300, 30, 6, 1e-40, false, false},  // too large for shared memory
    };
    // Under compute-sanitizer (KETRA_GPU_QUICK=1) the two smallest cases: both kernels.
    char const* quick = std::getenv("KETRA_GPU_QUICK");
    std::size_t const n_cases = quick && std::string(quick) == "1" ? 2 : std::size(cases);
    std::mt19937_64 rng(17);
    for (Case const& c : std::vector<Case>(cases, cases + n_cases)) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " N=" + std::to_string(c.N) + (c.force_global ? " global" : ""));
        RecordCheck s;
        set_up(s, c.K, c.L, c.N, c.scale, true, c.pairs, rng);
        hmm_gpu::Engine engine(s.run.panel, s.run.schedule, s.outputs, c.force_global);
        EXPECT_EQ(engine.shared_memory_kernel(), !c.force_global && c.K <= 200);
        std::vector<int> order(c.N);
        for (int k = 0; k < c.N; ++k) order[k] = c.N - 1 - k;  // any order, handed back as given
        std::size_t next = 0;
        engine.run(order, [&](hmm_gpu::IndividualResult const& r) {
            ASSERT_LT(next, order.size());
            ASSERT_EQ(r.individual, order[next++]);
            EXPECT_TRUE(same_bits(s.expected(r.individual), s.assembled(r)));
            EXPECT_TRUE(c.pairs || r.pair_posteriors == nullptr);
        });
        EXPECT_EQ(next, order.size());
    }
}

// Every result file of runs in a fresh copy of the example, without the
// echoed command line (which names the flags) and, for split runs, without the
// chunks' own files and the .aux file, which differ by design.
std::map<std::string, std::string> run_example(std::vector<std::vector<std::string>> const& runs, bool split = false) {
    ketra_test::TempDir dir;
    ketra_test::copy_example_data(dir);
    std::istringstream in(ketra_test::read_file(dir.file("args.txt")));
    std::vector<std::string> const args{std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
    for (auto const& more : runs) {
        std::vector<std::string> all = args;
        all.insert(all.end(), more.begin(), more.end());
        auto const result = ketra_test::run_ketra(all, dir.path().string());
        EXPECT_EQ(result.status, 0) << "the run's log:\n" << result.out << result.err;
    }
    auto files = ketra_test::without_command_line(ketra_test::collect_output_files(dir.path() / "out"));
    for (auto it = files.begin(); it != files.end();)
        it = split && (it->first.find(".chunk") != std::string::npos || it->first.find(".aux") != std::string::npos)
                 ? files.erase(it)
                 : std::next(it);
    return files;
}

TEST(GpuEngine, GpuRunsWriteThePlainRunsFiles) {
    SKIP_WITHOUT_DEVICE();
    auto const plain = run_example({{"-print_matrix"}});
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(run_example({{"-print_matrix", "-gpu", "-threads", "3"}}), plain);
    // Split: chunks on the device, merged on the CPU.
    EXPECT_EQ(run_example({{"-print_matrix", "-gpu", "-chunk", "1", "2"},
                           {"-print_matrix", "-gpu", "-chunk", "2", "2"},
                           {"-print_matrix", "-merge", "2"}},
                          true),
              run_example({{"-print_matrix"}}, true));
}

}  // namespace
