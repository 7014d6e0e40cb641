#include "io/output_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "io/text_stream.h"

output_file::output_file(boost::filesystem::path path, mode how, bool gzip_by_name) : path_(std::move(path)) {
    if (how == mode::truncate && gzip_by_name) {
        stream_ = open_text_output(path_);
        return;
    }
    auto const flags = std::ios::out | std::ios::binary | (how == mode::append ? std::ios::app : std::ios::trunc);
    auto file = std::make_unique<std::ofstream>(path_.string(), flags);
    if (file->is_open()) stream_ = std::move(file);
}

output_file::~output_file() = default;

void output_file::write(std::string const& text) { write(text.data(), text.size()); }

void output_file::write(char const* text, std::size_t size) {
    if (stream_) stream_->write(text, static_cast<std::streamsize>(size));
}

void output_file::finish() {
    if (!stream_) return;
    errno = 0;
    stream_->flush();
    bool const ok = static_cast<bool>(*stream_);
    int const error = errno;
    stream_.reset();
    if (!ok) throw write_error(path_.string(), error != 0 ? std::strerror(error) : "write failed");
}
