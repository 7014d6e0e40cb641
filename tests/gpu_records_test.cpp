// GPU runs against the CPU engine's records. Without a device: the device's
// arithmetic, run on the host by teams of one and three threads and assembled
// into records, must give the CPU records bit for bit, and -gpu must stop the
// run with its cause. With a device: the engine's batches are held to the same
// standard, and whole runs with -gpu (plain and split) must write the plain
// run's files byte for byte. KETRA_REQUIRE_GPU=1 (which the device check
// sets) turns every skip for want of a device into a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
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
void set_up(RecordCheck& s, int K, int L, int N, double scale, bool trees, bool pairs, std::mt19937_64& rng,
            bool ends = true) {
    s.run = ketra_test::make_run(K, L, N, scale, trees, rng, ends);
    std::vector<int> branch_counts(s.run.schedule.flanks.size(), 0);
    for (std::size_t p = 0; p < s.run.trees.size(); ++p) branch_counts[p] = static_cast<int>(s.run.marked[p].size());
    s.layout = result_layout(K, branch_counts, pairs);
    s.outputs = hmm_gpu::Outputs{&s.run.layouts, &s.run.marked, pairs};
    hmm_gpu::HostPlan const plan(s.run.panel, s.run.schedule, s.outputs);
    for (int p = 0; p <= plan.n_positions(); ++p) s.offsets.push_back(plan.branch_offset(p));
}

// The device's arithmetic for one individual run on the host by a team of
// the given size, as a record.
std::vector<double> host_record(RecordCheck const& s, hmm_gpu::HostPlan const& plan, int team, int n,
                                double* on_chip = nullptr) {
    std::vector<gpu_arith::TreeView> views;
    gpu_arith::Plan const bound = plan.bind_host(views);
    hmm_gpu::HostIndividual device(plan);
    gpu_arith::Work w = device.buffers;
    if (on_chip) gpu_arith::carve_on_chip(plan.K(), w, on_chip);
    ketra_test::on_team(team, [&](auto const& t) {
        gpu_arith::run_individual(t, bound, s.run.panel.genotypes_of(n), w, device.output());
    });
    EXPECT_EQ(device.status, gpu_arith::status_ok);
    return s.assembled({n, device.view.m, device.view.branches, device.view.pair_posteriors});
}

// Teams of one to four threads, and of 8 and 16 in groups of eight lanes as
// on the device; every forward array kept (slots 0) or a
// few, recomputed by the checkpoint plan; positions at both ends of the SNPs
// or not, where the forward pass stops at the last kept SNP and the backward
// pass at the lowest right flank.
TEST(GpuRecords, DeviceArithmeticAssemblesTheCpuRecords) {
    struct Case { int K, L; double scale; bool trees, pairs; int team, slots; bool ends; };
    Case const cases[] = {{1, 6, 1.0, true, true, 1, 0, true},        {2, 1, 1.0, true, false, 3, 0, true},
                          {5, 40, 1e-12, true, true, 3, 1, true},     {9, 25, 1.0, false, true, 1, 0, false},
                          {11, 60, 1e-30, true, false, 3, 2, false},  {16, 12, 1e-3, true, true, 3, 0, true},
                          {17, 30, 1e-45, true, true, 3, 3, true},    {37, 10, 1e-90, true, true, 3, 0, false},
                          {3, 8, 1e-120, true, true, 3, 1, true},     {40, 90, 1e-60, true, false, 4, 4, false},
                          {19, 30, 1e-40, true, true, 8, 2, false},   {26, 14, 1e-70, true, false, 16, 0, true}};
    std::mt19937_64 rng(23);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " L=" + std::to_string(c.L) + (c.trees ? " trees" : "") +
                     (c.pairs ? " pairs" : "") + " slots=" + std::to_string(c.slots) + (c.ends ? "" : " no ends"));
        int const N = 2;
        RecordCheck s;
        set_up(s, c.K, c.L, N, c.scale, c.trees, c.pairs, rng, c.ends);
        hmm_gpu::HostPlan plan(s.run.panel, s.run.schedule, s.outputs);
        if (c.slots > 0) {
            plan.set_kept_slots(c.slots);
            ASSERT_LT(plan.kept_slots(), s.run.schedule.n_kept) << "the case must recompute forward arrays";
        }
        for (int n = 0; n < N; ++n) ASSERT_TRUE(same_bits(s.expected(n), host_record(s, plan, c.team, n))) << n;
    }
}

// The shared-memory kernel carves its on-chip buffers from shared_doubles()
// doubles: the run must reach the last of them and nothing beyond.
TEST(GpuRecords, SharedLayoutIsWhatTheKernelUses) {
    std::mt19937_64 rng(5);
    for (int K : {1, 7, 30}) {
        SCOPED_TRACE("K=" + std::to_string(K));
        RecordCheck s;
        set_up(s, K, 20, 1, 1e-40, true, false, rng);
        hmm_gpu::HostPlan const plan(s.run.panel, s.run.schedule, s.outputs);
        double const untouched = -1234.5;
        std::size_t const extent = plan.shared_doubles(), guard = 64;
        std::vector<double> chip(extent + guard, untouched);
        ASSERT_TRUE(same_bits(s.expected(0), host_record(s, plan, 3, 0, chip.data())));
        std::size_t reached = 0;
        for (std::size_t k = 0; k < chip.size(); ++k)
            if (chip[k] != untouched) reached = k + 1;
        EXPECT_EQ(reached, extent);
    }
}

// The team functions alone against the CPU kernel's: row sums and totals for
// every K around the groups of eight, and branch sums on random trees and on
// combs leaning either way (the most rows a tree can have), at a K where the
// CPU takes its row sums without a copy of P.
TEST(GpuRecords, TeamSumsAreTheCpuKernels) {
    std::mt19937_64 rng(41);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int K : {1, 7, 8, 9, 33, 150}) {
        std::vector<double> T(gpu_arith::tri_size(K));
        for (double& x : T) x = u(rng) * u(rng);
        std::vector<double> R_cpu(K);
        double const total_cpu = hmm_kernel::row_sums(K, T.data(), R_cpu.data());
        for (int team : {1, 3, 8, 24}) {
            std::vector<double> R(K, -1.0), work(2 * K + 1);
            double total = 0.0;
            ketra_test::on_team(team, [&](auto const& t) {
                double const got = gpu_arith::sweep(t, K, gpu_arith::SumRow{T.data()}, T.data(), R.data(), work.data());
                if (t.rank() == 0) total = got;
            });
            EXPECT_TRUE(same_bits(R, R_cpu)) << "K=" << K << " team " << team;
            EXPECT_TRUE(same_bits({total}, {total_cpu})) << "K=" << K << " team " << team;
        }
    }
    for (int K : {150, 1100}) {
        std::vector<double> P(gpu_arith::tri_size(K)), m(K);
        for (double& x : P) x = u(rng) * u(rng);
        hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        std::vector<hmm_kernel::BranchLayout> const layouts = ketra_test::random_tree_and_combs(K, rng);
        for (auto const& layout : layouts) {
            int const nodes = layout.n_nodes();
            std::vector<double> both(nodes), one(nodes), cpu_work(2 * nodes);
            hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), cpu_work.data());
            std::vector<int> marked(nodes);
            for (int v = 0; v < nodes; ++v) marked[v] = v;
            std::vector<std::size_t> row_start = layout.row_start;
            row_start.push_back(gpu_arith::tri_size(K));  // room enough for every row
            gpu_arith::TreeView const view{nodes,         layout.child_a.data(), layout.child_b.data(),
                                           layout.lo.data(), layout.hi.data(),   layout.order.data(),
                                           marked.data(),  nodes,                row_start.data()};
            std::vector<double> out(2 * nodes), rows(gpu_arith::tri_size(K)), work(3 * nodes);
            ketra_test::on_team(16, [&](auto const& t) {
                gpu_arith::branch_probabilities(t, K, view, P.data(), m.data(), out.data(), rows.data(), work.data());
            });
            std::vector<double> expected;
            for (int v = 0; v < nodes; ++v) expected.insert(expected.end(), {both[v], one[v]});
            EXPECT_TRUE(same_bits(out, expected)) << "K=" << K;
        }
    }
}

// One individual's buffers, carved from its work and result arrays, lie
// inside them and apart from each other, with and without the pair
// posteriors and the forward values of recomputing sweeps.
TEST(GpuRecords, CarvedBuffersAreInsideAndApart) {
    std::mt19937_64 rng(8);
    for (bool pairs : {false, true})
        for (int slots : {0, 1, 3}) {
            SCOPED_TRACE(std::string(pairs ? "pairs" : "no pairs") + " slots=" + std::to_string(slots));
            RecordCheck s;
            set_up(s, 6, 30, 1, 1.0, true, pairs, rng);
            hmm_gpu::HostPlan plan(s.run.panel, s.run.schedule, s.outputs);
            if (slots > 0) plan.set_kept_slots(slots);
            hmm_gpu::HostIndividual device(plan);
            gpu_arith::Work const& w = device.buffers;
            hmm_gpu::HostPlan::ResultView const& r = device.view;
            std::size_t const n = gpu_arith::tri_size(6), K = 6, P = plan.n_positions();
            std::size_t const kept = gpu_arith::kept_stride(6) * plan.kept_slots();
            std::size_t nodes = 0;
            for (auto const& layout : s.run.layouts) nodes = std::max<std::size_t>(nodes, layout.n_nodes());
            struct Span { const double* at; std::size_t size; };
            std::vector<Span> spans = {{w.pairs, n},  {w.B, n},         {w.backup, n},        {w.kept, kept},
                                       {w.R0, K},     {w.R1, K},        {w.RS, K},            {w.work, 4 * K + 1 + 3 * nodes},
                                       {r.m, P * K},  {r.branches, plan.branch_offset(P)}};
            spans.push_back({w.P, pairs ? P * n : n});
            EXPECT_EQ(w.F != nullptr, plan.kept_slots() < s.run.schedule.n_kept);
            if (w.F) spans.push_back({w.F, n});
            EXPECT_EQ(r.pair_posteriors, pairs ? w.P : nullptr);
            std::vector<int> owner(device.work.size() + device.result.size(), -1);
            for (std::size_t k = 0; k < spans.size(); ++k) {
                bool const in_work = spans[k].at >= device.work.data() &&
                                     spans[k].at + spans[k].size <= device.work.data() + device.work.size();
                bool const in_result = spans[k].at >= device.result.data() &&
                                       spans[k].at + spans[k].size <= device.result.data() + device.result.size();
                ASSERT_TRUE(in_work || in_result) << "buffer " << k;
                std::size_t const first = in_work ? spans[k].at - device.work.data()
                                                  : device.work.size() + (spans[k].at - device.result.data());
                for (std::size_t d = first; d < first + spans[k].size; ++d) {
                    ASSERT_EQ(owner[d], -1) << "buffers " << owner[d] << " and " << k << " overlap";
                    owner[d] = static_cast<int>(k);
                }
            }
        }
}

// Plans that do not fit the panel are refused before anything runs.
TEST(GpuRecords, PlansThatDoNotFitThePanelAreRefused) {
    std::mt19937_64 rng(3);
    RecordCheck s;
    set_up(s, 5, 12, 1, 1.0, true, false, rng);
    auto refused = [&](hmm_kernel::Schedule const& schedule, std::vector<hmm_kernel::BranchLayout> layouts,
                       std::vector<std::vector<int>> marked) {
        hmm_gpu::Outputs const outputs{&layouts, &marked, false};
        try {
            hmm_gpu::HostPlan const plan(s.run.panel, schedule, outputs);
        } catch (std::invalid_argument const&) {
            return true;
        }
        return false;
    };
    EXPECT_FALSE(refused(s.run.schedule, s.run.layouts, s.run.marked));
    EXPECT_TRUE(refused(hmm_kernel::Schedule(11, {}), s.run.layouts, s.run.marked));
    auto fewer = s.run.layouts;
    fewer.pop_back();
    EXPECT_TRUE(refused(s.run.schedule, fewer, s.run.marked));
    auto outside = s.run.marked;
    outside[0].push_back(s.run.layouts[0].n_nodes());
    EXPECT_TRUE(refused(s.run.schedule, s.run.layouts, outside));
    auto other_K = s.run.layouts;
    other_K[0] = ketra_test::random_layout(4, rng);
    EXPECT_TRUE(refused(s.run.schedule, other_K, s.run.marked));
}

// Kernel, kept forward arrays and batch size against the device's memory, for
// runs from tiny to beyond any device, with every pair posterior kept or not.
TEST(GpuRecords, LaunchPlansFitTheDevice) {
    struct Case { int K, positions; double gib; bool matrix; bool refused, shared, all_kept; };
    Case const cases[] = {
        {50, 1, 8, false, false, true, true},         {50, 5000, 8, false, false, true, false},
        {50, 5000, 80, false, false, true, true},     {50, 5000, 8, true, false, true, true},
        {200, 200, 8, false, false, true, false},     {200, 200, 139, false, false, true, true},
        {230, 1, 80, false, false, false, true},      {2000, 200, 8, true, false, false, false},
        {2000, 200, 80, false, false, false, false},  {2000, 5000, 139, true, true, false, false},
        {8000, 1, 8, false, false, false, true},      {8000, 1, 8, true, false, false, true},
        {8000, 5000, 8, false, false, false, false},  {8000, 5000, 139, false, false, false, false},
        {8000, 5000, 139, true, true, false, false},
    };
    int const N = 500, sms = 132;
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " positions=" + std::to_string(c.positions) + " " +
                     std::to_string(c.gib) + " GiB" + (c.matrix ? " -print_matrix" : ""));
        hmm_gpu::RunShape shape;
        shape.K = c.K;
        shape.L = 2 * c.positions + 1;
        shape.n_positions = c.positions;
        shape.n_kept = c.positions;
        shape.max_nodes = 2 * c.K - 1;
        shape.branch_values = static_cast<std::size_t>(c.positions) * (2 * c.K - 1);
        shape.pair_posteriors = c.matrix;
        hmm_gpu::DeviceLimits device;
        device.free_bytes = static_cast<std::size_t>(c.gib * (1ull << 30));
        device.shared_per_block = 227 << 10;
        device.multiprocessors = sms;
        hmm_gpu::LaunchPlan const launch = hmm_gpu::plan_launch(shape, device, N);
        auto bytes = [&](int slots) {
            return 8 * (hmm_gpu::work_doubles(shape, slots) + hmm_gpu::result_doubles(shape)) + shape.L + 4;
        };
        double const usable = 0.9 * static_cast<double>(device.free_bytes) / 2;
        EXPECT_EQ(!launch.refusal.empty(), c.refused) << launch.refusal;
        if (c.refused) {
            EXPECT_NE(launch.refusal.find("MiB"), std::string::npos) << launch.refusal;
            EXPECT_GT(static_cast<double>(bytes(1)), usable);
            continue;
        }
        EXPECT_EQ(launch.shared, c.shared);
        EXPECT_EQ(launch.kept_slots == c.positions, c.all_kept);
        EXPECT_GE(launch.kept_slots, 1);
        EXPECT_LE(launch.kept_slots, c.positions);
        EXPECT_EQ(launch.individual_bytes, bytes(launch.kept_slots));
        EXPECT_GE(launch.batch, 1);
        EXPECT_LE(static_cast<double>(launch.batch) * launch.individual_bytes, usable);
        // Fewer slots only to fit twice the multiprocessors, and no fewer than that needs.
        std::size_t const result_bytes = 8 * hmm_gpu::result_doubles(shape);
        int const wanted = static_cast<int>(std::min<std::size_t>(
            std::min(N, 2 * sms), std::max<std::size_t>(1, device.host_result_bytes / result_bytes)));
        if (launch.kept_slots < c.positions) {
            EXPECT_TRUE(launch.batch >= wanted || launch.kept_slots == 1) << launch.batch;
            EXPECT_GT(static_cast<double>(wanted) * bytes(launch.kept_slots + 1), usable);
        }
        EXPECT_EQ(launch.threads, std::min(c.shared ? 256 : 512, (c.K + 31) / 32 * 32));
    }
    // Positions in an order that needs every forward array: all kept, or refused.
    hmm_gpu::RunShape shape;
    shape.K = 2000;
    shape.L = 4001;
    shape.n_positions = shape.n_kept = 2000;
    shape.checkpoints = false;
    hmm_gpu::DeviceLimits device;
    device.free_bytes = std::size_t(8) << 30;
    device.shared_per_block = 227 << 10;
    EXPECT_FALSE(hmm_gpu::plan_launch(shape, device, N).refusal.empty());
    shape.n_positions = shape.n_kept = 100;
    EXPECT_EQ(hmm_gpu::plan_launch(shape, device, N).kept_slots, 100);
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
    // slots: at most that many forward arrays kept (0: as the memory allows).
    struct Case { int K, L, N; double scale; bool force_global, pairs; int slots; bool ends; };
    Case const cases[] = {
        {1, 5, 3, 1.0, false, true, 0, true},        {13, 50, 40, 1e-30, true, true, 2, false},
        {37, 80, 700, 1.0, false, false, 0, true},   {200, 120, 300, 1e-20, false, false, 3, false},
        {200, 40, 20, 1.0, true, true, 0, true},     {60, 90, 50, 1e-50, false, false, 1, true},
        {300, 30, 6, 1e-40, false, false, 2, true},  // too large for shared memory
    };
    // Under compute-sanitizer (KETRA_GPU_QUICK=1) the two smallest cases: both kernels.
    char const* quick = std::getenv("KETRA_GPU_QUICK");
    std::size_t const n_cases = quick && std::string(quick) == "1" ? 2 : std::size(cases);
    std::mt19937_64 rng(17);
    for (Case const& c : std::vector<Case>(cases, cases + n_cases)) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " N=" + std::to_string(c.N) + (c.force_global ? " global" : ""));
        RecordCheck s;
        set_up(s, c.K, c.L, c.N, c.scale, true, c.pairs, rng, c.ends);
        hmm_gpu::Engine engine(s.run.panel, s.run.schedule, s.outputs, c.force_global, c.slots);
        EXPECT_EQ(engine.shared_memory_kernel(), !c.force_global && c.K <= 200);
        EXPECT_EQ(engine.kept_slots() < s.run.schedule.n_kept, c.slots > 0);
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
