#include "io/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include <boost/filesystem/operations.hpp>
#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>

#include "io/text_stream.h"

namespace io = boost::iostreams;

struct output_file::descriptor {
    int fd = -1;
    int error = 0;  // errno of the first failed write, 0 while all went well

    void write_all(char const* s, std::size_t n) {
        while (n > 0 && error == 0) {
            ssize_t const written = ::write(fd, s, n);
            if (written < 0) {
                if (errno != EINTR) error = errno;
                continue;
            }
            s += written;
            n -= static_cast<std::size_t>(written);
        }
    }
};

namespace {

bool whole_files_only = false;
mode_t creation_mode = 0644;  // 0666 less the umask, read once when the mode is switched on

// The end of the stream chain. It never throws: a failed write is recorded
// and reported by finish(), and later writes are dropped.
class descriptor_sink {
public:
    using char_type = char;
    using category = io::sink_tag;
    explicit descriptor_sink(std::shared_ptr<output_file::descriptor> file) : file_(std::move(file)) {}
    std::streamsize write(char const* s, std::streamsize n) {
        file_->write_all(s, static_cast<std::size_t>(n));
        return n;
    }

private:
    std::shared_ptr<output_file::descriptor> file_;
};

// fsync's failure, or 0. A file system that does not sync (EINVAL, ENOTSUP)
// is not an error of the run; a failed write-back (EIO, ENOSPC) is.
int sync_error(int fd) {
    if (::fsync(fd) == 0 || errno == EINVAL || errno == ENOTSUP) return 0;
    return errno;
}

std::string reason(int error) { return error != 0 ? std::strerror(error) : "write failed"; }

}  // namespace

void output_file::set_whole_files_only(bool on) {
    whole_files_only = on;
    if (on) {
        mode_t const mask = ::umask(0);
        ::umask(mask);
        creation_mode = 0666 & ~mask;
    }
}

output_file::output_file(boost::filesystem::path path, mode how, bool gzip_by_name)
    : path_(std::move(path)), file_(std::make_shared<descriptor>()) {
    // A device or pipe named as an output is written directly: renaming a
    // file over it would replace the device itself.
    boost::system::error_code ignored;
    auto const existing = boost::filesystem::status(path_, ignored).type();
    bool const special = existing == boost::filesystem::character_file || existing == boost::filesystem::block_file ||
                         existing == boost::filesystem::fifo_file || existing == boost::filesystem::socket_file;
    if (whole_files_only && !special) {
        boost::filesystem::path const folder = path_.parent_path();
        std::string pattern = (folder / ("." + path_.filename().string() + ".XXXXXX")).string();
        file_->fd = ::mkstemp(&pattern[0]);
        if (file_->fd < 0) {
            file_->error = errno;
            return;
        }
        temporary_ = pattern;
        ::fchmod(file_->fd, creation_mode);
        if (how == mode::append) {
            // The earlier content goes first, so that the renamed file is the whole of it.
            std::ifstream earlier(path_.string(), std::ios::binary);
            char buffer[1 << 16];
            while (earlier.read(buffer, sizeof buffer) || earlier.gcount() > 0)
                file_->write_all(buffer, static_cast<std::size_t>(earlier.gcount()));
        }
    } else {
        int const flags = O_WRONLY | O_CREAT | O_CLOEXEC | (how == mode::append ? O_APPEND : O_TRUNC);
        file_->fd = ::open(path_.c_str(), flags, 0666);
        if (file_->fd < 0) {
            file_->error = errno;
            return;
        }
    }
    auto stream = std::make_unique<io::filtering_ostream>();
    plain_ = !(how == mode::truncate && gzip_by_name && is_gzip_path(path_));
    if (!plain_) stream->push(io::gzip_compressor());
    stream->push(descriptor_sink(file_));
    stream_ = std::move(stream);
}

output_file::~output_file() {
    if (!stream_) return;
    close_and_check();
    discard_temporary();
}

void output_file::require_open() const {
    if (!stream_) throw write_error(path_.string(), "can't open file: " + reason(file_->error));
}

void output_file::write(std::string const& text) { write(text.data(), text.size()); }

void output_file::write(char const* text, std::size_t size) {
    if (!stream_) return;
    // The chain passes text on in pieces of its 4 KiB buffer, one system call
    // each; a large block for a plain file goes to the descriptor whole.
    if (plain_ && size >= direct_write_bytes) {
        stream_->flush();
        file_->write_all(text, size);
        return;
    }
    stream_->write(text, static_cast<std::streamsize>(size));
}

// Empties the chain (the gzip trailer is written on the way) and closes the
// descriptor, keeping the first error met. A file kept under a temporary name
// is on the disk before it is closed, so that the rename which follows can
// never put a file torn by a power loss under the final name.
void output_file::close_and_check() {
    static_cast<io::filtering_ostream&>(*stream_).reset();
    stream_.reset();
    if (!temporary_.empty() && file_->error == 0) file_->error = sync_error(file_->fd);
    if (::close(file_->fd) != 0 && file_->error == 0) file_->error = errno;
    file_->fd = -1;
}

void output_file::discard_temporary() {
    if (temporary_.empty()) return;
    std::remove(temporary_.c_str());
    temporary_.clear();
}

void output_file::finish() {
    if (!stream_) return;
    close_and_check();
    if (file_->error != 0) {
        discard_temporary();
        throw write_error(path_.string(), reason(file_->error));
    }
    if (!temporary_.empty()) {
        if (std::rename(temporary_.c_str(), path_.c_str()) != 0) {
            int const error = errno;
            discard_temporary();
            throw write_error(path_.string(), reason(error));
        }
        temporary_.clear();
        // The rename itself is durable once the folder is.
        std::string const folder = path_.has_parent_path() ? path_.parent_path().string() : ".";
        int const fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        int const error = fd < 0 ? errno : sync_error(fd);
        if (fd >= 0) ::close(fd);
        if (error != 0) throw write_error(path_.string(), "can't sync its folder: " + reason(error));
    }
}
