// Result records on disk: each engine worker appends its records to a file of
// its own (no locks, no waiting for order), and remembers which individual
// each record belongs to; a reader then finds any individual's record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/output_file.h"
#include "results/result_stream.h"

// One worker's file, the individuals of its records in file order, and the
// CRC-32 of its bytes (so that a merge can tell damaged partial results).
struct result_part {
    std::string path;
    std::vector<int> individuals;
    std::uint32_t checksum = 0;
};

// CRC-32 of bytes, continuing from crc (0 to start).
std::uint32_t extend_checksum(std::uint32_t crc, char const* bytes, std::size_t size);

// CRC-32 of a whole file; throws run_error naming it when it cannot be read.
std::uint32_t file_checksum(std::string const& path);

class result_file_writer : public result_sink {
public:
    // Files are named base + "." + worker number.
    result_file_writer(std::string const& base, int workers, std::size_t record_size);
    void take(int worker, int individual, double const* record) override;
    // Completes every file; throws write_error when one failed.
    void finish();
    std::vector<result_part> const& parts() const { return parts_; }

private:
    std::size_t record_bytes_;
    std::vector<std::unique_ptr<output_file>> files_;
    std::vector<result_part> parts_;
};

class result_file_reader {
public:
    // Every individual first .. first + count - 1 must have a record in parts;
    // run_error otherwise, and when a record cannot be read.
    result_file_reader(std::vector<result_part> const& parts, int first, int count, std::size_t record_size);
    ~result_file_reader();
    result_file_reader(result_file_reader const&) = delete;
    result_file_reader& operator=(result_file_reader const&) = delete;

    int first() const { return first_; }
    int count() const { return static_cast<int>(where_.size()); }
    // Values [from, from + size) of the individual's record; safe from any thread.
    void read(int individual, std::size_t from, std::size_t size, double* out) const;

private:
    struct location {
        int file = -1;
        int record = 0;
    };
    int first_;
    std::size_t record_bytes_;
    std::vector<int> fds_;
    std::vector<std::string> paths_;
    std::vector<location> where_;
};
