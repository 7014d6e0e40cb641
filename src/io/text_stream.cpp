#include "io/text_stream.h"

#include <fstream>
#include <string>

#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <boost/iostreams/operations.hpp>

#include "io/badfilename.h"

namespace io = boost::iostreams;

char const* const gzip_in_plain_input =
    "file is gzip-compressed, but this input is read as plain text (only names ending in .gz are decompressed).";

namespace {

std::string damage_reason(io::gzip_error const& e) {
    if (e.error() == io::gzip::bad_header) return "not in gzip format.";
    if (e.error() == io::gzip::zlib_error && e.zlib_error_code() == io::zlib::buf_error)
        return "compressed data are truncated.";
    return "compressed data are truncated or corrupt.";
}

// Sits on top of the decompressor and turns its failures into the readers'
// error, naming the file. The stream rethrows it because its exception mask
// holds badbit; without that the failure would read as a clean end of file.
class damage_report : public io::multichar_input_filter {
public:
    explicit damage_report(std::string name) : name_(std::move(name)) {}

    template <class Source>
    std::streamsize read(Source& source, char* s, std::streamsize n) {
        try {
            return io::read(source, s, n);
        } catch (io::gzip_error const& e) {
            throw badfilename(name_, damage_reason(e));
        } catch (std::ios_base::failure const&) {
            throw badfilename(name_, "read error.");
        }
    }

private:
    std::string name_;
};

}  // namespace

bool is_gzip_path(boost::filesystem::path const& path) {
    return path.extension().string() == ".gz";
}

std::unique_ptr<std::istream> open_text_input(boost::filesystem::path const& path) {
    io::file_source source(path.string(), std::ios::in | std::ios::binary);
    if (!source.is_open()) return nullptr;
    auto stream = std::make_unique<io::filtering_istream>();
    if (is_gzip_path(path)) {
        stream->push(damage_report(path.string()));
        stream->push(io::gzip_decompressor(15, 4096));
        stream->exceptions(std::ios::badbit);
    }
    stream->push(source);
    return stream;
}

bool read_text_line(std::istream& in, std::string& line) {
    if (!std::getline(in, line)) return false;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

bool starts_with_gzip_magic(boost::filesystem::path const& path) {
    std::ifstream in(path.string(), std::ios::binary);
    char magic[2] = {0, 0};
    if (!in.read(magic, 2)) return false;
    return static_cast<unsigned char>(magic[0]) == 0x1f && static_cast<unsigned char>(magic[1]) == 0x8b;
}
