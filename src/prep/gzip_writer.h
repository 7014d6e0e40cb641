// A gzip file written as it goes, byte for byte what Python's
// gzip.GzipFile(name, "wb", compresslevel=6, mtime=0) writes: zlib's deflate
// at level 6 as one stream (its output does not depend on how the text
// arrives in pieces), the file's name without ".gz" in the header, mtime 0,
// OS byte 255.
//
// Deflate at level 6 is the costliest step of ketra-prep, so it runs on a
// thread of its own: write() fills blocks of text that the thread compresses
// in order while the caller goes on reading. At most a few blocks wait, so
// memory stays bounded.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <zlib.h>

#include "io/output_file.h"

class python_gzip_writer {
public:
    // `file` must be plain (opened with gzip_by_name = false); `path` is the
    // name as given, whose base name goes into the header.
    python_gzip_writer(output_file& file, std::string const& path);
    ~python_gzip_writer();
    python_gzip_writer(python_gzip_writer const&) = delete;
    python_gzip_writer& operator=(python_gzip_writer const&) = delete;

    void write(char const* text, std::size_t size);
    void write(std::string const& text) { write(text.data(), text.size()); }
    // Compresses what is left and completes the stream (the file itself is
    // finished by its owner). Rethrows a failure of the compressing thread.
    void finish();

private:
    void hand_over();
    void compress_blocks();
    void deflate_into_file(char const* text, std::size_t size, int flush);
    void stop();

    output_file& file_;
    z_stream stream_{};
    std::string out_;
    unsigned long crc_ = 0;
    unsigned long size_ = 0;
    bool finished_ = false;

    std::string block_;               // filled by write()
    std::deque<std::string> queue_;   // blocks waiting for the thread
    std::deque<std::string> spare_;   // emptied blocks for reuse
    bool closing_ = false;
    std::exception_ptr failure_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread worker_;
};
