// One output file of the run: plain or gzip (chosen by the name, like every
// file of the run), truncated or appended to. Whatever writes a result file
// goes through this class, so that failed writes are caught in one place.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

#include <boost/filesystem/path.hpp>

#include "io/run_failure.h"

// A write or close that failed after the file was opened (disk full, I/O
// error): "Error writing file " + name + ": " + the system's reason.
class write_error : public run_failure {
public:
    write_error(std::string const& file, std::string const& reason)
        : run_failure("Error writing file " + file + ": " + reason, false) {}
};

class output_file {
public:
    enum class mode { truncate, append };

    // Opens the file; is_open() tells whether that worked (callers decide
    // whether an unopenable file is reported). gzip_by_name = false writes
    // plain text whatever the name; appending is always plain.
    explicit output_file(boost::filesystem::path path, mode how = mode::truncate, bool gzip_by_name = true);
    output_file(output_file const&) = delete;
    output_file& operator=(output_file const&) = delete;
    // Closes without reporting; call finish() to be told. A file kept under
    // a temporary name (whole-files mode) is removed unless finish() ran.
    ~output_file();

    bool is_open() const { return stream_ != nullptr; }
    // For a file that did not open: throws write_error with the system's reason.
    void require_open() const;
    std::ostream& stream() { return *stream_; }
    void write(std::string const& text);
    void write(char const* text, std::size_t size);

    // Flushes, completes the gzip stream and closes the file; throws
    // write_error when a write or the close failed. In whole-files mode the
    // file then takes its own name. A file that never opened finishes quietly.
    void finish();

    boost::filesystem::path const& path() const { return path_; }

    // Whole-files mode (-strict): every file is written under a temporary
    // name in its own folder and renamed by finish(), so that a run stopped
    // at any moment leaves under a final name only files that are complete.
    // Set once, before any output file is opened.
    static void set_whole_files_only(bool on);

    struct descriptor;  // the open file and the first error met on it

private:
    void close_and_check();
    void discard_temporary();

    boost::filesystem::path path_;
    boost::filesystem::path temporary_;  // empty unless in whole-files mode
    std::shared_ptr<descriptor> file_;
    std::unique_ptr<std::ostream> stream_;
    bool plain_ = true;  // no gzip filter in the chain
    static constexpr std::size_t direct_write_bytes = 64u << 10;
};
