#include "prep/genetic_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string_view>

#include "prep/prep_error.h"
#include "prep/python_text.h"

namespace {

bool ends_with(std::string const& s, char const* tail) {
    std::size_t const n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

std::string_view without_chr(std::string_view s) { return s.substr(0, 3) == "chr" ? s.substr(3) : s; }

// The file's bytes, plain or through gzip, in pieces; errors as Python's
// open() and gzip module word them.
class byte_source {
public:
    byte_source(std::string const& path, bool gzip) : path_(path) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) fail(std::strerror(errno));
        struct stat st;
        if (::fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode)) fail(std::strerror(EISDIR));
        if (!gzip) return;
        // The first two bytes decide, as in Python's gzip module.
        unsigned char magic[2];
        std::size_t got = 0;
        while (got < 2) {
            ssize_t const n = ::read(fd_, magic + got, 2 - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) fail(std::strerror(errno));
            if (n == 0) break;
            got += static_cast<std::size_t>(n);
        }
        if (got == 0) {
            empty_ = true;
            return;
        }
        if (got < 2 || magic[0] != 0x1f || magic[1] != 0x8b)
            fail("Not a gzipped file (" + python_bytes_repr(std::string(reinterpret_cast<char*>(magic), got)) + ")");
        ::lseek(fd_, 0, SEEK_SET);
        int const fd = ::dup(fd_);
        gz_ = gzdopen(fd, "rb");
        if (!gz_) {
            ::close(fd);
            fail(std::strerror(errno));
        }
        gzbuffer(gz_, 1 << 16);
    }
    ~byte_source() {
        if (gz_) gzclose(gz_);
        if (fd_ >= 0) ::close(fd_);
    }
    byte_source(byte_source const&) = delete;
    byte_source& operator=(byte_source const&) = delete;

    // Bytes read into buffer; 0 at the end.
    std::size_t read(char* buffer, std::size_t size) {
        if (empty_) return 0;
        if (gz_) {
            int const n = gzread(gz_, buffer, static_cast<unsigned>(size));
            int status = Z_OK;
            if (n == 0) gzerror(gz_, &status);
            if (n < 0 || (status != Z_OK && status != Z_STREAM_END)) {
                int code = 0;
                char const* text = gzerror(gz_, &code);
                if (code == Z_BUF_ERROR) fail("Compressed file ended before the end-of-stream marker was reached");
                fail(text ? text : "gzip read error");
            }
            return static_cast<std::size_t>(n);
        }
        for (;;) {
            ssize_t const n = ::read(fd_, buffer, size);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) fail(std::strerror(errno));
            return static_cast<std::size_t>(n);
        }
    }

private:
    [[noreturn]] void fail(std::string const& reason) { throw prep_error{path_ + ": " + reason}; }

    std::string path_;
    int fd_ = -1;
    gzFile gz_ = nullptr;
    bool empty_ = false;
};

// Lines as Python's text mode gives them: ends of line are "\n", "\r\n" and "\r".
class line_reader {
public:
    explicit line_reader(byte_source& source) : source_(source), buffer_(1 << 16, '\0') {}

    bool next(std::string& line) {
        line.clear();
        bool any = false;
        for (;;) {
            if (at_ == end_) {
                end_ = source_.read(&buffer_[0], buffer_.size());
                at_ = 0;
                if (end_ == 0) return any;
            }
            if (skip_newline_) {
                skip_newline_ = false;
                if (buffer_[at_] == '\n') {
                    ++at_;
                    continue;
                }
            }
            std::size_t i = at_;
            while (i < end_ && buffer_[i] != '\n' && buffer_[i] != '\r') ++i;
            line.append(buffer_, at_, i - at_);
            any = true;
            if (i == end_) {
                at_ = end_;
                continue;
            }
            skip_newline_ = buffer_[i] == '\r';
            at_ = i + 1;
            return true;
        }
    }

private:
    byte_source& source_;
    std::string buffer_;
    std::size_t at_ = 0, end_ = 0;
    bool skip_newline_ = false;
};

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

int find_column(std::vector<std::string_view> const& head, std::initializer_list<char const*> names) {
    for (std::size_t i = 0; i < head.size(); ++i) {
        std::string const h = lower(head[i]);
        for (char const* n : names)
            if (h == n) return static_cast<int>(i);
    }
    return -1;
}

}  // namespace

std::vector<map_row> read_map_rows(std::string const& path, std::string const& chrom, std::int64_t lo,
                                   std::int64_t hi) {
    byte_source source(path, ends_with(path, ".gz"));
    line_reader lines(source);
    std::string line;
    std::vector<std::string_view> fields;
    lines.next(line);
    python_split(line, fields);
    int const pos_col = find_column(fields, {"pos", "position", "position(bp)"});
    int const cm_col = find_column(fields, {"cm", "genetic_map(cm)", "map(cm)"});
    int const chr_col = find_column(fields, {"chr", "chromosome"});
    if (pos_col < 0 || cm_col < 0) {
        std::string joined;
        for (auto const& f : fields) joined += (joined.empty() ? "" : " ") + std::string(f);
        throw prep_error{path + ": header " + python_repr(joined) +
                         " is neither 'pos chr cM' nor 'position COMBINED_rate(cM/Mb) Genetic_Map(cM)'"};
    }
    std::string_view const wanted = without_chr(chrom);

    // rows[first..last] of the script, where first is the last row at or
    // before lo and last the first row at or after hi (defaults: the ends).
    std::vector<map_row> kept;
    bool last_found = false;      // a row at or after hi was met and kept
    bool first_after_last = false;  // a row at or before lo came after it
    bool ascending = true;
    bool any = false;
    std::int64_t previous = 0;
    for (long n = 2; lines.next(line); ++n) {
        python_split(line, fields);
        if (fields.empty()) continue;
        auto const not_a_row = [&] { return prep_error{path + ": line " + std::to_string(n) + " is not a map row"}; };
        if (chr_col >= 0) {
            if (static_cast<std::size_t>(chr_col) >= fields.size()) throw not_a_row();
            if (without_chr(fields[static_cast<std::size_t>(chr_col)]) != wanted) continue;
        }
        if (static_cast<std::size_t>(pos_col) >= fields.size() || static_cast<std::size_t>(cm_col) >= fields.size())
            throw not_a_row();
        double position_value = 0, cm = 0;
        std::string_view const cm_text = fields[static_cast<std::size_t>(cm_col)];
        if (!python_float(fields[static_cast<std::size_t>(pos_col)], position_value) ||
            !std::isfinite(position_value) || std::fabs(position_value) >= 9.2e18 || !python_float(cm_text, cm))
            throw not_a_row();
        auto const position = static_cast<std::int64_t>(position_value);  // int() truncates toward zero
        if (any && position < previous) ascending = false;
        previous = position;
        any = true;
        if (!ascending) continue;  // an error once the whole file is read
        map_row row{position, cm, std::string(cm_text)};
        if (position <= lo) {
            if (last_found) {
                first_after_last = true;
            } else {
                kept.clear();
                kept.push_back(std::move(row));
                if (position >= hi) last_found = true;
            }
            continue;
        }
        if (!last_found) {
            kept.push_back(std::move(row));
            if (position >= hi) last_found = true;
        }
    }
    if (!ascending) throw prep_error{path + ": positions are not ascending"};
    if (first_after_last) kept.clear();
    if (kept.size() < 2)
        throw prep_error{path + ": fewer than two map rows for chromosome " + chrom + " around the region"};
    return kept;
}

std::string map_file_text(std::vector<map_row> const& rows) {
    std::string out = "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        double rate = 0.0;
        if (i + 1 < rows.size() && rows[i + 1].position != rows[i].position)
            rate = (rows[i + 1].cm - rows[i].cm) / static_cast<double>(rows[i + 1].position - rows[i].position) * 1e6;
        out += std::to_string(rows[i].position);
        out += ' ';
        out += python_fixed6(rate);
        out += ' ';
        out += rows[i].cm_text;
        out += '\n';
    }
    return out;
}
