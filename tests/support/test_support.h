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

void write_file(std::string const& path, std::string const& content);
void write_gz_file(std::string const& path, std::string const& content);
// Compressed when the name ends in ".gz".
void write_input_file(std::string const& path, std::string const& content);
std::string read_file(std::string const& path);
std::string read_gz_file(std::string const& path);
bool file_exists(std::string const& path);
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
// Replaces the digits of the timing line, so that outputs compare byte for byte.
std::string mask_timing(std::string text);
// The same, and the binary's path (which depends on the build folder) as "ketra".
std::string mask_run_text(std::string text);

// Every file under folder by relative path; .gz files (which must be one whole
// gzip stream) as "<name>.unzipped" text.
std::map<std::string, std::string> collect_output_files(boost::filesystem::path const& folder);
// Removes the echoed command line, the one text that differs between runs
// that differ only in options such as -threads.
std::string without_command_line(std::string text);

std::string source_dir();

}  // namespace ketra_test
