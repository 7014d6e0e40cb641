// What compressing ketra-prep's genotype text costs, one way and another:
// the floor under ketra-prep's run time.
//
// ketra-prep once wrote .gen.gz as one zlib stream at level 6 (raw deflate,
// memory level 8, default strategy), fed in 256 KiB blocks; "today's" below
// is that stream, the size its BGZF output is measured against. A single
// deflate stream cannot be cut across threads, so that line's time bounded
// the whole run. The other lines compress the same text in independent 1 MiB
// gzip members (which gunzip and Ketra read as one file) on THREADS threads,
// as BGZF does in 64 KiB blocks: other bytes, same text.
//   build/bench/deflate_timing FILE [THREADS] [REPEATS]
// Prints, per way, the best wall time over REPEATS, the compressed size and
// the size against today's.
#include <zlib.h>
#include <libdeflate.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

// Today's bytes: one raw stream, as ketra-prep's earlier writer made it.
std::size_t zlib_one_stream(std::string const& text) {
    z_stream stream{};
    if (deflateInit2(&stream, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) std::abort();
    std::vector<unsigned char> out(1 << 20);
    std::size_t written = 0, at = 0;
    constexpr std::size_t block = 1 << 18;
    int flush = Z_NO_FLUSH;
    do {
        std::size_t const size = std::min(block, text.size() - at);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data() + at));
        stream.avail_in = static_cast<uInt>(size);
        at += size;
        flush = at == text.size() ? Z_FINISH : Z_NO_FLUSH;
        int status;
        do {
            stream.next_out = out.data();
            stream.avail_out = static_cast<uInt>(out.size());
            status = deflate(&stream, flush);
            written += out.size() - stream.avail_out;
        } while (stream.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    } while (flush != Z_FINISH);
    deflateEnd(&stream);
    return written;
}

// One gzip member of TEXT[begin, begin + size) into OUT; returns its size.
using member_compressor = std::function<std::size_t(char const*, std::size_t, std::vector<unsigned char>&)>;

std::size_t zlib_member(char const* text, std::size_t size, std::vector<unsigned char>& out) {
    z_stream stream{};
    if (deflateInit2(&stream, 6, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) std::abort();
    out.resize(deflateBound(&stream, size));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text));
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) std::abort();
    deflateEnd(&stream);
    return stream.total_out;
}

member_compressor libdeflate_member(int level) {
    return [level](char const* text, std::size_t size, std::vector<unsigned char>& out) {
        // One compressor per thread and level, freed when the thread ends.
        thread_local std::unique_ptr<libdeflate_compressor, decltype(&libdeflate_free_compressor)> compressor(
            nullptr, libdeflate_free_compressor);
        thread_local int compressor_level = 0;
        if (compressor_level != level) {
            compressor.reset(libdeflate_alloc_compressor(level));
            compressor_level = level;
        }
        out.resize(libdeflate_gzip_compress_bound(compressor.get(), size));
        return libdeflate_gzip_compress(compressor.get(), text, size, out.data(), out.size());
    };
}

// Members of 1 MiB on THREADS threads; returns the total compressed size.
std::size_t in_members(std::string const& text, int threads, member_compressor const& compress) {
    constexpr std::size_t member = 1 << 20;
    std::size_t const count = (text.size() + member - 1) / member;
    std::atomic<std::size_t> next{0}, total{0};
    auto work = [&] {
        std::vector<unsigned char> out;
        for (std::size_t i; (i = next++) < count;) {
            std::size_t const begin = i * member;
            total += compress(text.data() + begin, std::min(member, text.size() - begin), out);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    for (auto& thread : pool) thread.join();
    return total;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE [THREADS] [REPEATS]\n", argv[0]);
        return 2;
    }
    std::ifstream file(argv[1], std::ios::binary);
    std::string const text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file.eof() && !file) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 2;
    }
    int const threads = argc > 2 ? std::max(1, std::atoi(argv[2])) : 2;
    int const repeats = argc > 3 ? std::max(1, std::atoi(argv[3])) : 1;

    struct way {
        std::string name;
        std::function<std::size_t()> run;
    };
    std::string const members = " in 1 MiB members, " + std::to_string(threads) + " threads";
    std::vector<way> const ways = {
        {"zlib level 6, one stream (today's bytes)", [&] { return zlib_one_stream(text); }},
        {"zlib level 6" + members, [&] { return in_members(text, threads, zlib_member); }},
        {"libdeflate level 4" + members, [&] { return in_members(text, threads, libdeflate_member(4)); }},
        {"libdeflate level 6" + members, [&] { return in_members(text, threads, libdeflate_member(6)); }},
        {"libdeflate level 7" + members, [&] { return in_members(text, threads, libdeflate_member(7)); }},
    };
    std::printf("%.1f MB of text\n", text.size() / 1e6);
    std::size_t today = 0;
    for (auto const& w : ways) {
        double best = 1e300;
        std::size_t size = 0;
        for (int r = 0; r < repeats; ++r) {
            auto const start = clock_type::now();
            size = w.run();
            best = std::min(best, std::chrono::duration<double>(clock_type::now() - start).count());
        }
        if (today == 0) today = size;
        std::printf("%-52s %6.2f s  %6.2f MB  size %.3f of today's\n", w.name.c_str(), best, size / 1e6,
                    static_cast<double>(size) / today);
    }
}
