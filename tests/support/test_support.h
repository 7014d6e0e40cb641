// Helpers shared by the tests: scratch folders, files, and runs of the built program.
#pragma once

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <gtest/gtest.h>

#include "engine/cpu_engine.h"

namespace ketra_test {

// A fresh folder under the system temp folder, removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;
    boost::filesystem::path const& path() const { return path_; }
    std::string file(std::string const& name) const;

private:
    boost::filesystem::path path_;
};

// Compressed when gzip is true.
void write_file(std::string const& path, std::string const& content, bool gzip = false);
std::string read_file(std::string const& path);
// The text of a file that holds one whole gzip stream.
std::string read_gzip_file(std::string const& path);
bool text_ends_with(std::string const& text, std::string const& tail);

// The small data set (K = 4, N = 3) or the bundled example, copied into dir.
void copy_small_data(TempDir const& dir);
void copy_example_data(TempDir const& dir);
std::vector<std::string> small_data_args(std::string const& output = "out/run");

struct RunResult {
    int status = -1;
    std::string out;  // standard output
    std::string err;
};
RunResult run_ketra(std::vector<std::string> const& args, std::string const& cwd = ".");
// Replaces the digits of the timing line, and the binary's path (which depends
// on the build folder) by "ketra", so that outputs compare byte for byte.
std::string mask_run_text(std::string text);

// Every file under folder by relative path; .gz files (which must be one whole
// gzip stream) as "<name>.unzipped" text.
std::map<std::string, std::string> collect_output_files(boost::filesystem::path const& folder);
// Removes the echoed command line, the one text that differs between runs
// that differ only in options such as -threads; from a text or every file.
std::string without_command_line(std::string text);
std::map<std::string, std::string> without_command_line(std::map<std::string, std::string> files);

// The program under test and the folder holding the test data (the source
// tree, or a carried folder): KETRA_BINARY and KETRA_SOURCE_DIR when set, else
// where the build put them.
std::string ketra_binary();
std::string source_dir();

// Equal values, bit for bit (so -0.0 differs from 0.0, and NaN equals itself).
inline ::testing::AssertionResult same_bits(std::vector<double> const& a, std::vector<double> const& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes " << a.size() << " and " << b.size();
    for (std::size_t k = 0; k < a.size(); ++k)
        if (std::memcmp(&a[k], &b[k], sizeof(double)) != 0)
            return ::testing::AssertionFailure() << "entry " << k << ": " << a[k] << " vs " << b[k];
    return ::testing::AssertionSuccess();
}

// A team of threads that meet at every sync, as the threads of a GPU block do;
// a size that is a multiple of 8 works in groups of eight lanes.
struct ThreadTeam {
    struct Barrier {
        std::mutex m;
        std::condition_variable cv;
        int n, waiting = 0;
        long generation = 0;
        std::vector<double> lane_values;
    };
    int r, s;
    Barrier* barrier;
    int rank() const { return r; }
    int size() const { return s; }
    int lanes() const { return s % 8 == 0 ? 8 : 1; }
    double lane_tree_sum(double p) const {
        if (lanes() == 1) return p;
        barrier->lane_values[r] = p;
        sync();
        const double* v = barrier->lane_values.data() + (r / 8) * 8;
        double const sum = ((v[0] + v[1]) + (v[2] + v[3])) + ((v[4] + v[5]) + (v[6] + v[7]));
        sync();  // before the next call writes the values again
        return sum;
    }
    void sync() const {
        std::unique_lock<std::mutex> lock(barrier->m);
        long const g = barrier->generation;
        if (++barrier->waiting == barrier->n) {
            barrier->waiting = 0;
            ++barrier->generation;
            barrier->cv.notify_all();
        } else {
            barrier->cv.wait(lock, [&] { return g != barrier->generation; });
        }
    }
};

// Runs f(team) on `size` threads.
template <class F>
void on_team(int size, F const& f) {
    ThreadTeam::Barrier barrier;
    barrier.n = size;
    barrier.lane_values.assign(size, 0.0);
    std::vector<std::thread> threads;
    for (int r = 0; r < size; ++r) threads.emplace_back([&, r] { f(ThreadTeam{r, size, &barrier}); });
    for (auto& t : threads) t.join();
}

// A random binary tree over K leaves: merges of random open lineages, merged
// nodes numbered on from K.
hmm_kernel::BranchLayout random_layout(int K, std::mt19937_64& rng);
// A random tree, then the two combs over K leaves, leaning either way (a leaf
// joining the rest on one side or the other: the most row sums a tree needs).
std::vector<hmm_kernel::BranchLayout> random_tree_and_combs(int K, std::mt19937_64& rng);

// K haplotypes, L SNPs and N individuals, random; tiny emissions (scale) make
// the totals underflow, so both passes rescale. Positions on SNPs, between SNPs
// and at both ends; with trees, each has a random tree with a random half of
// its nodes marked.
struct RunData {
    hmm_kernel::Panel panel;
    hmm_kernel::Schedule schedule;
    std::vector<position_tree> trees;
    std::vector<hmm_kernel::BranchLayout> layouts;  // the trees' parts, as the GPU plan takes them
    std::vector<std::vector<int>> marked;
};
// Without ends, no position lies at the first or the last SNP (L >= 4), so
// that the passes can stop short of them.
RunData make_run(int K, int L, int N, double scale, bool with_trees, std::mt19937_64& rng, bool ends = true);

}  // namespace ketra_test
