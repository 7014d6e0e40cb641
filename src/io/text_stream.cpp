#include "io/text_stream.h"

#include <string>

#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>

namespace io = boost::iostreams;

bool is_gzip_path(boost::filesystem::path const& path) {
    return path.extension().string() == ".gz";
}

std::unique_ptr<std::istream> open_text_input(boost::filesystem::path const& path) {
    io::file_source source(path.string(), std::ios::in | std::ios::binary);
    if (!source.is_open()) return nullptr;
    auto stream = std::make_unique<io::filtering_istream>();
    if (is_gzip_path(path)) stream->push(io::gzip_decompressor(15, 4096));
    stream->push(source);
    return stream;
}

std::unique_ptr<std::ostream> open_text_output(boost::filesystem::path const& path) {
    io::file_sink sink(path.string(), std::ios::out | std::ios::trunc | std::ios::binary);
    if (!sink.is_open()) return nullptr;
    auto stream = std::make_unique<io::filtering_ostream>();
    if (is_gzip_path(path)) stream->push(io::gzip_compressor());
    stream->push(sink);
    return stream;
}

bool read_text_line(std::istream& in, std::string& line) {
    if (!std::getline(in, line)) return false;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}
