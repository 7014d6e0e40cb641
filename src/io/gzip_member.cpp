#include "io/gzip_member.h"

#include <zlib.h>

#include <stdexcept>

void append_gzip_member(std::string& out, std::string const& text, int level) {
    z_stream z{};
    // 15 window bits + 16: a gzip header and trailer around the deflate data.
    if (deflateInit2(&z, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("gzip: cannot start the compressor");
    std::size_t const start = out.size();
    out.resize(start + deflateBound(&z, static_cast<uLong>(text.size())) + 32);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[start]);
    z.avail_out = static_cast<uInt>(out.size() - start);
    int const status = deflate(&z, Z_FINISH);
    std::size_t const written = out.size() - start - z.avail_out;
    deflateEnd(&z);
    if (status != Z_STREAM_END) throw std::runtime_error("gzip: block did not fit its bound");
    out.resize(start + written);
}
