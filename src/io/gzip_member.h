// Complete gzip members, each holding one block of text. Members concatenated
// form one valid gzip file, so blocks can be compressed independently (on
// several threads) and written in order.
#pragma once

#include <cstddef>
#include <string>

struct libdeflate_compressor;

// One compressor per thread: it keeps its working memory between blocks.
class gzip_compressor {
public:
    explicit gzip_compressor(int level);  // 1 = fastest ... 12 = smallest
    ~gzip_compressor();
    gzip_compressor(gzip_compressor const&) = delete;
    gzip_compressor& operator=(gzip_compressor const&) = delete;

    // Appends to `out` the gzip member of `text`.
    void append_member(std::string& out, char const* text, std::size_t size);

private:
    libdeflate_compressor* compressor_;
};

// Appends to `out` the gzip member of `text`, compressed at `level`.
void append_gzip_member(std::string& out, std::string const& text, int level);
