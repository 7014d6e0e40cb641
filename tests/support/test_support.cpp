#include "support/test_support.h"

#include <sys/wait.h>

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

}  // namespace ketra_test
