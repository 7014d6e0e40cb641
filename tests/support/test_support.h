// Helpers shared by the tests: scratch folders, files, and runs of the built program.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

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

// Files whose name ends in ".gz" are written gzip-compressed.
void write_file(std::string const& path, std::string const& content);
std::string read_file(std::string const& path);
bool ends_with(std::string const& text, std::string const& tail);

// The small data set (K = 4, N = 3) or the bundled example, copied into dir.
void copy_small_inputs(TempDir const& dir);
void copy_example_inputs(TempDir const& dir);
std::vector<std::string> small_args(std::string const& output = "out/run");

struct RunResult {
    int status = -1;
    std::string out;  // standard output, binary path and timing masked
    std::string err;
};
RunResult run_ketra(std::vector<std::string> const& args, std::string const& cwd);

// Every file under folder by relative path; .gz files (which must be one whole
// gzip stream) as "<name>.unzipped" text.
std::map<std::string, std::string> collect_files(boost::filesystem::path const& folder);
// Removes the echoed command line, the one text that differs between runs
// that differ only in options such as -threads.
std::string drop_command_line(std::string text);

std::string source_dir();

}  // namespace ketra_test
