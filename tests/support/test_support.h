// Helpers shared by the tests: scratch directories, files, and running the built program.
#pragma once

#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

namespace ketra_test {

// A fresh directory under the system temp folder, removed when the object dies.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;
    boost::filesystem::path const& path() const { return path_; }
    // Path of a file inside the directory, as a string.
    std::string file(std::string const& name) const;

private:
    boost::filesystem::path path_;
};

void write_file(std::string const& path, std::string const& content);
// Writes content gzip-compressed, whatever the name.
void write_gz_file(std::string const& path, std::string const& content);
std::string read_file(std::string const& path);
// Reads a gzip file and returns its decompressed content.
std::string read_gz_file(std::string const& path);
bool file_exists(std::string const& path);

struct RunResult {
    int status = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs the built ketra binary with the given arguments in directory cwd.
RunResult run_ketra(std::vector<std::string> const& args, std::string const& cwd = ".");

// Replaces the digits of the timing line so that outputs compare byte for byte.
std::string mask_timing(std::string text);

// Captures what the code in between writes to std::cout.
class CoutCapture {
public:
    CoutCapture();
    ~CoutCapture();
    std::string text() const;

private:
    struct Impl;
    Impl* impl_;
};

std::string source_dir();

}  // namespace ketra_test
