#include "results/result_files.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>

#include <zlib.h>

#include "io/badfilename.h"
#include "io/run_error.h"

namespace {

[[noreturn]] void unreadable(std::string const& path, std::string const& cause) {
    throw run_error("Error reading file " + path + ": " + cause);
}

}  // namespace

std::uint32_t extend_checksum(std::uint32_t crc, char const* bytes, std::size_t size) {
    while (size > 0) {
        uInt const piece = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
        crc = static_cast<std::uint32_t>(::crc32(crc, reinterpret_cast<Bytef const*>(bytes), piece));
        bytes += piece;
        size -= piece;
    }
    return crc;
}

std::uint32_t file_checksum(std::string const& path) {
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) unreadable(path, std::strerror(errno));
    std::vector<char> buffer(1 << 20);
    std::uint32_t crc = 0;
    for (;;) {
        ssize_t const got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            std::string const reason = std::strerror(errno);
            ::close(fd);
            unreadable(path, reason);
        }
        if (got == 0) break;
        crc = extend_checksum(crc, buffer.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    return crc;
}

result_file_writer::result_file_writer(std::string const& base, int workers, std::size_t record_size)
    : record_bytes_(record_size * sizeof(double)) {
    for (int w = 0; w < workers; ++w) {
        std::string const path = base + "." + std::to_string(w);
        files_.push_back(std::make_unique<output_file>(path, output_file::mode::truncate, false));
        if (!files_.back()->is_open()) throw badfilename(path, "can't open file.");
        parts_.push_back({path, {}});
    }
}

void result_file_writer::take(int worker, int individual, double const* record) {
    char const* bytes = reinterpret_cast<char const*>(record);
    files_[worker]->write(bytes, record_bytes_);
    parts_[worker].individuals.push_back(individual);
    parts_[worker].checksum = extend_checksum(parts_[worker].checksum, bytes, record_bytes_);
}

void result_file_writer::finish() {
    for (auto& f : files_) f->finish();
}

result_file_reader::result_file_reader(std::vector<result_part> const& parts, int first, int count,
                                       std::size_t record_size)
    : first_(first), record_bytes_(record_size * sizeof(double)), where_(count > 0 ? count : 0) {
    // A merge of many chunks, each written by many threads, keeps a file open
    // per part: allow as many open files as the system lets this process have.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max &&
        files.rlim_cur < parts.size() + 64) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    for (auto const& part : parts) {
        int const fd = ::open(part.path.c_str(), O_RDONLY);
        if (fd < 0) {
            std::string const reason = std::strerror(errno);
            for (int open_fd : fds_) ::close(open_fd);
            unreadable(part.path, "can't open partial results: " + reason);
        }
        int const file = static_cast<int>(fds_.size());
        fds_.push_back(fd);
        paths_.push_back(part.path);
        for (std::size_t r = 0; r < part.individuals.size(); ++r) {
            int const n = part.individuals[r] - first;
            if (n >= 0 && n < count) where_[n] = {file, static_cast<int>(r)};
        }
    }
    for (std::size_t n = 0; n < where_.size(); ++n) {
        if (where_[n].file < 0) {
            for (int fd : fds_) ::close(fd);
            unreadable(parts.empty() ? std::string("partial results") : parts.front().path,
                       "no results for individual " + std::to_string(first + static_cast<int>(n)) + ".");
        }
    }
}

result_file_reader::~result_file_reader() {
    for (int fd : fds_) ::close(fd);
}

void result_file_reader::read(int individual, std::size_t from, std::size_t size, double* out) const {
    location const& at = where_[individual - first_];
    char* target = reinterpret_cast<char*>(out);
    std::size_t left = size * sizeof(double);
    off_t offset = static_cast<off_t>(at.record) * static_cast<off_t>(record_bytes_) +
                   static_cast<off_t>(from * sizeof(double));
    while (left > 0) {
        ssize_t const got = ::pread(fds_[at.file], target, left, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) unreadable(paths_[at.file], got < 0 ? std::strerror(errno) : "partial results cut short.");
        target += got;
        left -= static_cast<std::size_t>(got);
        offset += got;
    }
}

result_layout::result_layout(int K, std::vector<int> branches_per_position, bool pair_matrices)
    : K(K), pair_matrices(pair_matrices), branches(std::move(branches_per_position)) {
    std::size_t const pairs = pair_matrices ? pair_size() : 0;
    offset.assign(1, 0);
    for (int b : branches) offset.push_back(offset.back() + static_cast<std::size_t>(K) + 2 * static_cast<std::size_t>(b) + pairs);
}
