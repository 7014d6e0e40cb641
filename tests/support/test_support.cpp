#include "support/test_support.h"

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/iostreams/copy.hpp>
#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>

namespace fs = boost::filesystem;
namespace io = boost::iostreams;

namespace ketra_test {

TempDir::TempDir() {
    path_ = fs::temp_directory_path() / fs::unique_path("ketra-test-%%%%-%%%%-%%%%");
    fs::create_directories(path_);
}

TempDir::~TempDir() {
    boost::system::error_code ec;
    fs::remove_all(path_, ec);
}

std::string TempDir::file(std::string const& name) const { return (path_ / name).string(); }

void write_file(std::string const& path, std::string const& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
}

void write_gz_file(std::string const& path, std::string const& content) {
    io::filtering_ostream out;
    out.push(io::gzip_compressor());
    out.push(io::file_sink(path, std::ios::binary | std::ios::trunc));
    out << content;
}

std::string read_file(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string read_gz_file(std::string const& path) {
    io::filtering_istream in;
    in.push(io::gzip_decompressor());
    in.push(io::file_source(path, std::ios::binary));
    std::ostringstream s;
    io::copy(in, s);
    return s.str();
}

bool file_exists(std::string const& path) { return fs::exists(path); }

namespace {
std::string shell_quote(std::string const& s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') q += "'\\''";
        else q += c;
    }
    return q + "'";
}
}  // namespace

RunResult run_ketra(std::vector<std::string> const& args, std::string const& cwd) {
    TempDir capture;
    std::string const out_file = capture.file("stdout");
    std::string const err_file = capture.file("stderr");
    std::string command = "cd " + shell_quote(cwd) + " && " + shell_quote(KETRA_BINARY);
    for (auto const& a : args) command += " " + shell_quote(a);
    command += " >" + shell_quote(out_file) + " 2>" + shell_quote(err_file) + " </dev/null";
    int const raw = std::system(command.c_str());
    RunResult r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = read_file(out_file);
    r.err = read_file(err_file);
    return r;
}

std::string mask_timing(std::string text) {
    static std::regex const timing("Ketra took [0-9]+\\.[0-9]{2} seconds to complete\\.");
    return std::regex_replace(text, timing, "Ketra took X seconds to complete.");
}

struct CoutCapture::Impl {
    std::ostringstream buffer;
    std::streambuf* saved = nullptr;
};

CoutCapture::CoutCapture() : impl_(new Impl) { impl_->saved = std::cout.rdbuf(impl_->buffer.rdbuf()); }
CoutCapture::~CoutCapture() {
    std::cout.rdbuf(impl_->saved);
    delete impl_;
}
std::string CoutCapture::text() const { return impl_->buffer.str(); }

std::string source_dir() { return KETRA_SOURCE_DIR; }

hmm_kernel::BranchLayout random_layout(int K, std::mt19937_64& rng) {
    std::vector<int> a(K, -1), b(K, -1), open;
    for (int i = 0; i < K; ++i) open.push_back(i);
    while (open.size() > 1) {
        std::size_t const x = rng() % open.size();
        int const first = open[x];
        open.erase(open.begin() + x);
        std::size_t const y = rng() % open.size();
        a.push_back(first);
        b.push_back(open[y]);
        open[y] = static_cast<int>(a.size()) - 1;
    }
    return hmm_kernel::BranchLayout(K, a, b);
}

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
    for (std::size_t q = 0; with_trees && q < positions.size(); ++q) {
        std::vector<int> a(K, -1), b(K, -1), leaves(K);
        for (int k = 0; k < K; ++k) leaves[k] = k;
        std::shuffle(leaves.begin(), leaves.end(), rng);
        for (int v = 1, last = leaves[0]; v < K; ++v, last = static_cast<int>(a.size()) - 1) {
            a.push_back(last);
            b.push_back(leaves[v]);
        }
        position_tree tree{hmm_kernel::BranchLayout(K, a, b), {}};
        for (int v = 0; v < tree.layout.n_nodes(); ++v)
            if (rng() % 2) tree.marked.push_back(v);
        run.trees.push_back(tree);
        run.layouts.push_back(tree.layout);
        run.marked.push_back(tree.marked);
    }
    return run;
}

}  // namespace ketra_test
