#include "io/gzip_member.h"

#include <libdeflate.h>

#include <new>
#include <stdexcept>

gzip_compressor::gzip_compressor(int level) : compressor_(libdeflate_alloc_compressor(level)) {
    if (!compressor_) throw std::bad_alloc();
}

gzip_compressor::~gzip_compressor() { libdeflate_free_compressor(compressor_); }

void gzip_compressor::append_member(std::string& out, char const* text, std::size_t size) {
    std::size_t const start = out.size();
    out.resize(start + libdeflate_gzip_compress_bound(compressor_, size));
    std::size_t const written = libdeflate_gzip_compress(compressor_, text, size, &out[start], out.size() - start);
    if (written == 0) throw std::runtime_error("gzip: block did not fit its bound");
    out.resize(start + written);
}

void append_gzip_member(std::string& out, std::string const& text, int level) {
    gzip_compressor(level).append_member(out, text.data(), text.size());
}
