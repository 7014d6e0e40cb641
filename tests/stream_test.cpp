// Split runs and the results stream: chunk runs merged with -merge give the
// single run's files byte for byte; broken, missing or foreign partial results
// end with status 1; the memory check warns or stops only when a run does not fit.
#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "hmm/memory_check.h"
#include "hmm/run_error.h"
#include "support/test_support.h"

namespace fs = boost::filesystem;
using namespace ketra_test;

namespace {

std::vector<std::string> args(std::string const& output, std::vector<std::string> const& more) {
    std::vector<std::string> a = small_data_args(output);
    a.insert(a.end(), {"-tavlo_input", "-print_matrix"});
    a.insert(a.end(), more.begin(), more.end());
    return a;
}

}  // namespace

TEST(SplitRun, MergedChunksEqualTheSingleRun) {
    TempDir dir;
    copy_small_data(dir);
    struct split_case {
        std::string output;  // a .gz name gives a gzip matrix file
        int chunks;
        std::string chunk_threads, merge_threads;
        bool pardo_gz;
    };
    split_case const cases[] = {{"run", 1, "1", "1", false}, {"run", 2, "2", "1", true},
                                {"run.gz", 3, "1", "3", true}, {"run", 5, "2", "2", false}};  // 5 > N
    auto const results = [&](std::string const& folder) {  // without the partial results
        auto files = collect_output_files(dir.path() / folder);
        for (auto it = files.begin(); it != files.end();)
            it = it->first.find(".chunk") == std::string::npos ? std::next(it) : files.erase(it);
        return files;
    };
    for (auto const& c : cases) {
        std::string const n = std::to_string(c.chunks), single = "single" + n, split = "split" + n;
        SCOPED_TRACE(c.output + " n=" + n);
        ASSERT_EQ(run_ketra(args(single + "/" + c.output, {}), dir.path().string()).status, 0);
        std::vector<std::string> const gz = c.pardo_gz ? std::vector<std::string>{"-pardo_gz"} : std::vector<std::string>{};
        for (int i = 1; i <= c.chunks; ++i) {
            auto more = gz;
            more.insert(more.end(), {"-chunk", std::to_string(i), n, "-threads", c.chunk_threads});
            auto const r = run_ketra(args(split + "/" + c.output, more), dir.path().string());
            ASSERT_EQ(r.status, 0) << r.out;
        }
        EXPECT_TRUE(results(split).empty());  // the chunks write only their own files
        auto more = gz;
        more.insert(more.end(), {"-merge", n, "-threads", c.merge_threads});
        auto const merged = run_ketra(args(split + "/" + c.output, more), dir.path().string());
        ASSERT_EQ(merged.status, 0) << merged.out;
        EXPECT_NE(merged.out.find("Merging the partial results of " + n + " chunk runs ... done"), std::string::npos);
        // Matrix file, .aux file (which names the flags), 5 pardo and 5 .full_matrix files.
        auto const expected = results(single);
        auto got = results(split);
        ASSERT_EQ(expected.size(), 12u);
        ASSERT_EQ(got.size(), expected.size());
        for (auto const& [name, text] : expected) {
            if (name.find(".aux") != std::string::npos) continue;
            bool const packed = c.pardo_gz && text_ends_with(name, ".pardo");
            EXPECT_EQ(got[packed ? name + ".gz.unzipped" : name], text) << name;
        }
        for (auto const& folder : {single, split})  // the work folder is gone
            for (auto const& entry : fs::directory_iterator(dir.path() / folder))
                EXPECT_EQ(entry.path().filename().string().find(".work"), std::string::npos);
    }
}

TEST(SplitRun, BadChunksEndWithStatusOne) {
    TempDir dir;
    copy_small_data(dir);
    auto const run = [&](std::vector<std::string> const& more) { return run_ketra(args("s/run", more), dir.path().string()); };
    auto const chunk = [&](int i, int n) { return run({"-chunk", std::to_string(i), std::to_string(n)}); };
    auto const expect_stop = [](RunResult const& r, std::string const& cause) {
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find(cause), std::string::npos) << r.out.substr(r.out.size() > 400 ? r.out.size() - 400 : 0);
        EXPECT_NE(r.out.find("Program terminated\n"), std::string::npos);
    };
    for (auto const& bad : std::vector<std::pair<int, int>>{{0, 2}, {3, 2}, {1, 0}})
        expect_stop(chunk(bad.first, bad.second), "the chunk must be between 1 and");
    expect_stop(run({"-chunk", "1", "2", "-merge", "2"}), "cannot be given together");
    expect_stop(run({"-merge", "0"}), "the number of chunks must be at least 1");

    ASSERT_EQ(chunk(1, 2).status, 0);
    std::string const part2 = dir.file("s/run.chunk2of2.part"), data0 = part2 + ".0";
    expect_stop(run({"-merge", "2"}), "s/run.chunk2of2.part: partial results of chunk 2 of 2 are missing");
    ASSERT_EQ(chunk(2, 2).status, 0);
    std::string const index = read_file(part2), data = read_file(data0);
    std::time_t const genotypes_time = fs::last_write_time(dir.file("study.gen"));
    auto const with = [](std::string text, std::size_t at, std::size_t n, std::string const& by) {
        return text.replace(at, n, by);
    };
    struct broken_case {
        std::function<void()> damage;
        std::string cause;
    };
    broken_case const cases[] = {
        {[&] { write_file(part2, index.substr(0, index.rfind("complete"))); },
         "partial results are incomplete (run it again with -chunk 2 2)"},
        {[&] { write_file(data0, data.substr(0, data.size() - 8)); }, "run.chunk2of2.part.0: partial results are incomplete"},
        {[&] { fs::last_write_time(dir.file("study.gen"), genotypes_time + 60); },
         "partial results made by another command line or from other input files"},
        {[&] { fs::copy_file(dir.file("s/run.chunk1of2.part"), part2, fs::copy_option::overwrite_if_exists); },
         "partial results belong to chunk 1 of 2, not 2 of 2"},
        {[&] { write_file(data0, with(data, data.size() / 2, 1, std::string(1, data[data.size() / 2] ^ 4))); },
         "run.chunk2of2.part.0: partial results are damaged (run it again with -chunk 2 2)"},
        {[&] { write_file(part2, with(index, index.find("files 1"), 7, "files 2")); },
         "run.chunk2of2.part: partial results are damaged (run it again with -chunk 2 2)"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.cause);
        c.damage();
        expect_stop(run({"-merge", "2"}), c.cause);
        write_file(part2, index);
        write_file(data0, data);
        fs::last_write_time(dir.file("study.gen"), genotypes_time);
        ASSERT_EQ(run({"-merge", "2"}).status, 0);
    }
    // The same chunks do not make a split into three; other options than -threads change the fingerprint.
    expect_stop(run({"-merge", "3"}), "run.chunk1of3.part: partial results of chunk 1 of 3 are missing");
    expect_stop(run({"-merge", "2", "-Ne", "10000"}), "partial results made by another command line");
}

TEST(MemoryCheck, WarnsOrStopsOnlyWhenTheRunDoesNotFit) {
    struct memory_case {
        double needed, available;
        int threads;
        bool strict;
        std::string printed;  // empty: nothing printed
        bool stops;
    };
    memory_case const cases[] = {
        {100e6, 200e6, 4, true, "", false},
        {100e6, -1, 4, true, "", false},  // nothing known about the machine
        {300e6, 200e6, 4, false, "needs about 300 MB of memory, but only 200 MB is available. Use fewer threads (-threads 2)", false},
        {300e6, 200e6, 1, false, "Use fewer threads, or split the individuals over several runs with -chunk", false},
        {300e6, 200e6, 2, true, "", true},
    };
    for (auto const& c : cases) {
        std::ostringstream console;
        bool stopped = false;
        try {
            check_memory(c.needed, c.available, c.threads, c.strict, console);
        } catch (run_error const& e) {
            stopped = true;
            EXPECT_NE(e.what().find("-chunk <i> <n>"), std::string::npos);
        }
        EXPECT_EQ(stopped, c.stops) << c.needed << " " << c.available;
        if (c.printed.empty()) EXPECT_EQ(console.str(), "");
        else EXPECT_NE(console.str().find(c.printed), std::string::npos) << console.str();
    }
    // Each thread adds its kept forward arrays.
    run_size one;
    one.K = 200, one.L = 2000, one.N = 500, one.positions = 201, one.kept_forward_arrays = 201;
    run_size two = one;
    two.threads = 2;
    EXPECT_GT(estimate_peak_memory(two), estimate_peak_memory(one) + 201 * 20100 * 8.0);
}
