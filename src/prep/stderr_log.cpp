#include "prep/stderr_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// An unnamed temporary file: the logs may be long (a warning per record).
int anonymous_file() {
    char const* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/ketra-prep-log.XXXXXX";
    int fd = ::mkstemp(&pattern[0]);
    if (fd >= 0) {
        ::unlink(pattern.c_str());
        return fd;
    }
    std::FILE* f = std::tmpfile();
    return f ? ::dup(::fileno(f)) : -1;
}

}  // namespace

stderr_log::stderr_log() : fd_(anonymous_file()) {}

stderr_log::~stderr_log() {
    if (fd_ >= 0) ::close(fd_);
}

std::size_t stderr_log::size() const {
    struct stat st;
    if (fd_ < 0 || ::fstat(fd_, &st) != 0) return 0;
    return static_cast<std::size_t>(st.st_size);
}

std::string stderr_log::text(std::size_t from) const {
    std::string out;
    if (fd_ < 0) return out;
    char buffer[1 << 14];
    auto offset = static_cast<off_t>(from);
    for (;;) {
        ssize_t const n = ::pread(fd_, buffer, sizeof buffer, offset);
        if (n <= 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
        offset += n;
    }
    return out;
}

stderr_log::scope::scope(stderr_log& log) : previous_(-1) {
    if (log.fd_ < 0) return;
    std::fflush(stderr);
    previous_ = ::dup(STDERR_FILENO);
    ::dup2(log.fd_, STDERR_FILENO);
}

stderr_log::scope::~scope() {
    if (previous_ < 0) return;
    std::fflush(stderr);
    ::dup2(previous_, STDERR_FILENO);
    ::close(previous_);
}
