// One output file of the run: plain or gzip (chosen by the name, like every
// file of the run), truncated or appended to. Whatever writes a result file
// goes through this class, so that failed writes are caught in one place.
#pragma once

#include <memory>
#include <ostream>
#include <string>

#include <boost/filesystem/path.hpp>

// A write or close that failed after the file was opened (disk full, I/O
// error): "Error writing file " + name + ": " + the system's reason.
class write_error {
public:
    write_error(std::string const& file, std::string const& reason)
        : message_("Error writing file " + file + ": " + reason) {}
    std::string what() const { return message_; }

private:
    std::string message_;
};

class output_file {
public:
    enum class mode { truncate, append };

    // Opens the file; is_open() tells whether that worked (callers decide
    // whether an unopenable file is reported). gzip_by_name = false writes
    // plain text whatever the name.
    explicit output_file(boost::filesystem::path path, mode how = mode::truncate, bool gzip_by_name = true);
    output_file(output_file const&) = delete;
    output_file& operator=(output_file const&) = delete;
    ~output_file();  // closes without reporting; call finish() to be told

    bool is_open() const { return stream_ != nullptr; }
    std::ostream& stream() { return *stream_; }
    void write(std::string const& text);
    void write(char const* text, std::size_t size);

    // Flushes and closes the file; throws write_error when a write or the
    // close failed. A file that never opened finishes quietly.
    void finish();

    boost::filesystem::path const& path() const { return path_; }

private:
    boost::filesystem::path path_;
    std::unique_ptr<std::ostream> stream_;
};
