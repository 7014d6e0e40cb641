// GPU runs through the results stream. Without a device: the device's
// arithmetic, run on the host and assembled into records, must give the CPU
// engine's records bit for bit. With a device: whole runs with -gpu (plain and
// split) must write the plain run's files byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "hmm/cpu_engine.h"
#include "hmm/gpu_arith.h"
#include "hmm/gpu_plan.h"
#include "hmm/gpu_records.h"
#include "support/test_support.h"

namespace fs = boost::filesystem;

namespace {

struct RunData {
    hmm_kernel::Panel panel;
    hmm_kernel::Schedule schedule;
    std::vector<position_tree> trees;
};

// K haplotypes, L SNPs, N individuals; tiny emissions (scale) make both passes
// rescale. Positions on SNPs, between SNPs and at both ends; each with a
// caterpillar tree over shuffled leaves and a random half of its nodes marked.
RunData make_run(int K, int L, int N, double scale, bool with_trees, std::mt19937_64& rng) {
    RunData run;
    hmm_kernel::Panel& p = run.panel;
    p.K = K;
    p.L = L;
    p.N = N;
    for (int s = 0; s < L; ++s) {
        for (int k = 0; k < K; ++k) p.alleles.push_back(static_cast<double>(rng() & 1));
        double const rho = 0.01 + 2.0 * static_cast<double>(rng() % 1000) / 1000.0;
        double const jump = (1.0 - std::exp(-rho / K)) / K;
        p.stay.push_back(s == 0 ? 0.0 : 1.0 - (K - 1) * jump);
        p.jump.push_back(s == 0 ? 0.0 : jump);
        p.position.push_back(1000.0 * s + static_cast<double>(rng() % 500));
        p.rate_per_base.push_back(1e-4 * static_cast<double>(1 + rng() % 50));
    }
    for (int g = 0; g < 4; ++g)
        for (int a = 0; a < 3; ++a) p.emission[g][a] = g == 3 ? 1.0 : (a == g ? 0.9 : 0.05) * scale;
    for (int k = 0; k < N * L; ++k) p.genotypes.push_back(static_cast<std::uint8_t>(rng() % 4));
    std::vector<double> positions = {p.position.front()};
    for (int s = 0; s + 1 < L; ++s) {
        if (rng() % 3 == 0) positions.push_back(p.position[s]);
        if (rng() % 3 == 0) positions.push_back(0.5 * (p.position[s] + p.position[s + 1]));
    }
    positions.push_back(p.position.back());
    run.schedule = hmm_kernel::Schedule(L, hmm_kernel::find_flanks(p.position, p.rate_per_base, positions));
    if (!with_trees) return run;
    for (std::size_t q = 0; q < positions.size(); ++q) {
        std::vector<int> a(K, -1), b(K, -1), leaves(K);
        for (int k = 0; k < K; ++k) leaves[k] = k;
        std::shuffle(leaves.begin(), leaves.end(), rng);
        int last = leaves[0];
        for (int v = 1; v < K; ++v) {
            a.push_back(last);
            b.push_back(leaves[v]);
            last = static_cast<int>(a.size()) - 1;
        }
        position_tree tree{hmm_kernel::BranchLayout(K, a, b), {}};
        for (int v = 0; v < tree.layout.n_nodes(); ++v)
            if (rng() % 2) tree.marked.push_back(v);
        run.trees.push_back(tree);
    }
    return run;
}

TEST(GpuRecords, DeviceArithmeticAssemblesTheCpuRecords) {
    struct Case {
        int K, L;
        double scale;
        bool trees, pair_matrices;
    };
    Case const cases[] = {{1, 6, 1.0, true, true},     {2, 1, 1.0, true, false},   {5, 40, 1e-12, true, true},
                          {9, 25, 1.0, false, true},   {11, 60, 1e-30, true, false}, {16, 30, 1e-45, false, false},
                          {3, 8, 1e-120, true, true}};
    std::mt19937_64 rng(23);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " L=" + std::to_string(c.L) + (c.trees ? " trees" : "") +
                     (c.pair_matrices ? " pairs" : ""));
        int const N = 3;
        RunData const run = make_run(c.K, c.L, N, c.scale, c.trees, rng);
        std::vector<int> branch_counts(run.schedule.flanks.size(), 0);
        std::vector<hmm_kernel::BranchLayout> layouts;
        std::vector<std::vector<int>> marked;
        for (std::size_t p = 0; p < run.trees.size(); ++p) {
            branch_counts[p] = static_cast<int>(run.trees[p].marked.size());
            layouts.push_back(run.trees[p].layout);
            marked.push_back(run.trees[p].marked);
        }
        result_layout const layout(c.K, branch_counts, c.pair_matrices);
        engine_work const work{&run.panel, &run.schedule, &run.trees, &layout};

        hmm_gpu::HostPlan const plan(run.panel, run.schedule, {&layouts, &marked, c.pair_matrices});
        std::vector<std::size_t> offsets;
        for (int p = 0; p <= plan.n_positions(); ++p) offsets.push_back(plan.branch_offset(p));
        std::vector<gpu_arith::TreeView> views;
        gpu_arith::Plan const bound = plan.bind_host(views);

        hmm_kernel::Workspace workspace;
        for (int n = 0; n < N; ++n) {
            std::vector<double> expected(layout.record_size(), -1.0), got(layout.record_size(), -2.0);
            compute_record(work, n, workspace, expected.data());
            hmm_gpu::HostIndividual device(plan);
            gpu_arith::run_individual(gpu_arith::SerialTeam{}, bound, run.panel.genotypes_of(n), device.buffers,
                                      device.output());
            ASSERT_EQ(device.status, gpu_arith::status_ok);
            hmm_gpu::IndividualResult const result{n, device.view.m, device.view.branches,
                                                   device.view.pair_posteriors};
            assemble_record(layout, offsets, result, got.data());
            ASSERT_EQ(std::memcmp(expected.data(), got.data(), expected.size() * sizeof(double)), 0)
                << "individual " << n;
        }
    }
}

// Every file under root, by path relative to it; a .aux file without its
// command line, which names the flags.
std::map<std::string, std::string> files_under(fs::path const& root) {
    std::map<std::string, std::string> files;
    for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        std::string text = ketra_test::read_file(it->path().string());
        std::string const name = fs::relative(it->path(), root).string();
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".aux") == 0) {
            std::istringstream in(text);
            std::string line, kept;
            for (int k = 0; std::getline(in, line); ++k)
                if (k != 1) kept += line + "\n";
            text = kept;
        }
        files[name] = text;
    }
    return files;
}

TEST(GpuRecords, GpuRunsWriteThePlainRunsFiles) {
    std::string const why = hmm_gpu::unavailable_reason();
    if (!why.empty()) GTEST_SKIP() << why;
    fs::path const example = fs::path(ketra_test::source_dir()) / "examples" / "chr20-small";
    std::vector<std::string> args;
    {
        std::istringstream in(ketra_test::read_file((example / "args.txt").string()));
        for (std::string word; in >> word;) args.push_back(word);
    }
    auto const with = [&](std::vector<std::string> more) {
        std::vector<std::string> all = args;
        all.insert(all.end(), more.begin(), more.end());
        return all;
    };
    // Runs in a fresh copy of the example; returns the files it wrote under out/.
    auto const run_in_copy = [&](std::vector<std::vector<std::string>> const& runs) {
        ketra_test::TempDir dir;
        for (auto const& entry : fs::directory_iterator(example))
            if (fs::is_regular_file(entry.path())) fs::copy_file(entry.path(), dir.path() / entry.path().filename());
        for (auto const& r : runs) {
            auto const result = ketra_test::run_ketra(r, dir.path().string());
            EXPECT_EQ(result.status, 0) << result.out;
        }
        return files_under(dir.path() / "out");
    };
    struct Case {
        std::string name;
        std::vector<std::string> flags;
    };
    Case const cases[] = {{"matrix and pardo", {"-print_matrix"}}, {"compressed pardo", {"-pardo_gz", "-threads", "3"}}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        auto const plain = run_in_copy({with(c.flags)});
        auto gpu_flags = c.flags;
        gpu_flags.push_back("-gpu");
        EXPECT_EQ(run_in_copy({with(gpu_flags)}), plain);
        // Split: chunks on the device, merged on the CPU.
        auto chunk = [&](std::string i) {
            auto f = gpu_flags;
            f.insert(f.end(), {"-chunk", i, "2"});
            return with(f);
        };
        auto merge = c.flags;
        merge.insert(merge.end(), {"-merge", "2"});
        // The chunks' own files and the .aux files (which tell how the run
        // was split) differ by design.
        auto const without_split_files = [](std::map<std::string, std::string> files) {
            for (auto it = files.begin(); it != files.end();)
                it = it->first.find(".chunk") != std::string::npos || it->first.find(".aux") != std::string::npos
                         ? files.erase(it)
                         : std::next(it);
            return files;
        };
        EXPECT_EQ(without_split_files(run_in_copy({chunk("1"), chunk("2"), with(merge)})), without_split_files(plain));
    }
}

}  // namespace
