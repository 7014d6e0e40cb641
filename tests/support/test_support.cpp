#include "support/test_support.h"

#include <sys/wait.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
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

void write_file(std::string const& path, std::string const& content, bool gzip) {
    fs::create_directories(fs::path(path).parent_path());
    io::filtering_ostream out;
    if (gzip) out.push(io::gzip_compressor());
    out.push(io::file_sink(path, std::ios::binary | std::ios::trunc));
    if (!(out << content)) throw std::runtime_error("cannot write " + path);
}

std::string read_file(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool text_ends_with(std::string const& text, std::string const& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

namespace {

void copy_folder(fs::path const& from, TempDir const& dir) {
    for (auto const& entry : fs::directory_iterator(from))
        if (fs::is_regular_file(entry.path())) fs::copy_file(entry.path(), dir.path() / entry.path().filename());
}

std::string shell_quote(std::string const& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// A gzip file must hold one complete stream and nothing after it.
std::string inflate_whole(std::string const& path) {
    std::string const raw = read_file(path);
    z_stream z{};
    if (inflateInit2(&z, 15 + 16) != Z_OK) throw std::runtime_error("zlib");
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(raw.data()));
    z.avail_in = static_cast<uInt>(raw.size());
    std::string text;
    char buffer[1 << 14];
    int status = Z_OK;
    while (status == Z_OK) {
        z.next_out = reinterpret_cast<Bytef*>(buffer);
        z.avail_out = sizeof buffer;
        status = inflate(&z, Z_NO_FLUSH);
        text.append(buffer, sizeof buffer - z.avail_out);
    }
    uInt const left = z.avail_in;
    inflateEnd(&z);
    if (status != Z_STREAM_END || left != 0) return "<not one whole gzip stream>";
    return text;
}

}  // namespace

std::string read_gzip_file(std::string const& path) { return inflate_whole(path); }

namespace {

// The echoed command line starts with the binary's path, which depends on the build folder.
std::string without_binary_path(std::string text) {
    std::string const path = ketra_binary();
    for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path, at))
        text.replace(at, path.size(), "ketra");
    return text;
}

}  // namespace

void copy_small_data(TempDir const& dir) { copy_folder(fs::path(source_dir()) / "tests/data/small", dir); }
void copy_example_data(TempDir const& dir) { copy_folder(fs::path(source_dir()) / "examples/chr20-small", dir); }

std::vector<std::string> small_data_args(std::string const& output) {
    return {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", "study.gen", "-tree_file", "trees.txt",
            "-int", "900", "2000", "-buffer", "0", "-o", output};
}

RunResult run_ketra(std::vector<std::string> const& args, std::string const& cwd) {
    TempDir capture;
    std::string command = "cd " + shell_quote(cwd) + " && " + shell_quote(ketra_binary());
    for (auto const& a : args) command += " " + shell_quote(a);
    command += " >" + shell_quote(capture.file("out")) + " 2>" + shell_quote(capture.file("err")) + " </dev/null";
    int const raw = std::system(command.c_str());
    RunResult r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = read_file(capture.file("out"));
    r.err = read_file(capture.file("err"));
    return r;
}

std::string mask_run_text(std::string text) {
    static std::regex const timing("Ketra took [0-9]+\\.[0-9]{2} seconds");
    return std::regex_replace(without_binary_path(std::move(text)), timing, "Ketra took X seconds");
}

std::map<std::string, std::string> collect_output_files(fs::path const& folder) {
    std::map<std::string, std::string> files;
    if (!fs::is_directory(folder)) return files;
    for (fs::recursive_directory_iterator it(folder), end; it != end; ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        std::string const name = it->path().lexically_relative(folder).generic_string();
        if (it->path().extension() == ".gz") files[name + ".unzipped"] = inflate_whole(it->path().string());
        else files[name] = without_binary_path(read_file(it->path().string()));
    }
    return files;
}

std::string without_command_line(std::string text) {
    std::string const label = "Command line output is:\n";
    for (std::size_t at = text.find(label); at != std::string::npos; at = text.find(label, at + label.size())) {
        std::size_t const end = text.find('\n', at + label.size());
        text.erase(at + label.size(), end == std::string::npos ? std::string::npos : end + 1 - at - label.size());
    }
    return text;
}

std::map<std::string, std::string> without_command_line(std::map<std::string, std::string> files) {
    for (auto& file : files) file.second = without_command_line(file.second);
    return files;
}

namespace {

// A path from the environment variable, else the build's path relative to the
// folder of this test program: a folder carried to another machine sets the
// variables, a build folder needs neither.
std::string located(char const* variable, char const* relative) {
    if (char const* set = std::getenv(variable); set && *set) return set;
    fs::path const here = fs::read_symlink("/proc/self/exe").parent_path();
    return (here / relative).lexically_normal().string();
}

}  // namespace

std::string ketra_binary() {
    static std::string const path = located("KETRA_BINARY", KETRA_BINARY_FROM_TESTS);
    return path;
}

std::string source_dir() {
    static std::string const path = located("KETRA_SOURCE_DIR", KETRA_SOURCE_FROM_TESTS);
    return path;
}

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

std::vector<hmm_kernel::BranchLayout> random_tree_and_combs(int K, std::mt19937_64& rng) {
    std::vector<hmm_kernel::BranchLayout> layouts = {random_layout(K, rng)};
    for (bool leaf_first : {false, true}) {
        std::vector<int> a(K, -1), b(K, -1);
        for (int k = 1, below = 0; k < K; ++k, below = static_cast<int>(a.size()) - 1) {
            a.push_back(leaf_first ? k : below);
            b.push_back(leaf_first ? below : k);
        }
        layouts.emplace_back(K, a, b);
    }
    return layouts;
}

RunData make_run(int K, int L, int N, double scale, bool with_trees, std::mt19937_64& rng, bool ends) {
    RunData run;
    hmm_kernel::Panel& p = run.panel;
    p.K = K;
    p.L = L;
    p.N = N;
    p.n_held = N;
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
    std::vector<double> positions;
    if (ends) positions.push_back(p.position.front());
    for (int s = ends ? 0 : 1; s + (ends ? 1 : 2) < L; ++s) {
        if (rng() % 3 == 0) positions.push_back(p.position[s]);
        if (rng() % 3 == 0) positions.push_back(0.5 * (p.position[s] + p.position[s + 1]));
    }
    if (ends) positions.push_back(p.position.back());
    else if (positions.empty()) positions.push_back(p.position[L / 2]);
    run.schedule = hmm_kernel::Schedule(L, hmm_kernel::find_flanks(p.position, p.rate_per_base, positions));
    for (std::size_t q = 0; with_trees && q < positions.size(); ++q) {
        position_tree tree{random_layout(K, rng), {}};
        for (int v = 0; v < tree.layout.n_nodes(); ++v)
            if (rng() % 2) tree.marked.push_back(v);
        run.trees.push_back(tree);
        run.layouts.push_back(tree.layout);
        run.marked.push_back(tree.marked);
    }
    return run;
}

}  // namespace ketra_test
