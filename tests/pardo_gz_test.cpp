// Compressed pardo files: gzip members that gzip -t and the program's own
// reader accept, and a run whose files of several 1 MB blocks, compressed by
// several threads at once, decompress to the plain run's bytes in order.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench_inputs.h"
#include "io/gzip_member.h"
#include "io/text_stream.h"
#include "support/test_support.h"

namespace {

// gzip -t is what users check files with; the reader is the program's own.
void expect_valid_gzip_of(std::string const& path, std::string const& text) {
    EXPECT_EQ(std::system(("gzip -t '" + path + "' 2>/dev/null").c_str()), 0) << path;
    auto in = open_text_input(path);
    ASSERT_TRUE(in);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(*in), std::istreambuf_iterator<char>()) == text) << path;
}

}  // namespace

TEST(PardoGzip, MembersAreOneValidGzipFile) {
    ketra_test::TempDir dir;
    std::string numbers;
    for (int i = 0; numbers.size() < (3u << 20); ++i) numbers += std::to_string(i * 7919 % 100003) + " 0.25 1\n";
    std::vector<std::pair<int, std::vector<std::string>>> const cases = {
        {1, {"one line\n"}}, {6, {"first block ", "second\n", "third\n"}}, {12, {numbers, "end\n", numbers.substr(9)}}};
    for (auto const& [level, blocks] : cases) {
        gzip_compressor compressor(level);
        std::string file, text;
        for (auto const& b : blocks) {
            compressor.append_member(file, b.data(), b.size());
            text += b;
        }
        ketra_test::write_file(dir.file("t.gz"), file);
        expect_valid_gzip_of(dir.file("t.gz"), text);
        EXPECT_TRUE(text.size() < (1u << 20) || file.size() * 2 < text.size()) << "not compressed";
    }
}

// Two pardo files of several blocks each and more threads than files.
TEST(PardoGzip, ManyBlocksPerFileDecompressToThePlainRun) {
    ketra_test::TempDir dir;
    bench_sizes sizes;
    sizes.haplotypes = 100, sizes.snps = 30, sizes.individuals = 400, sizes.positions = 2;
    std::istringstream inputs(write_bench_inputs(sizes, dir.path().string()));
    std::vector<std::string> plain, packed;
    for (std::string w; inputs >> w;) plain.push_back(w);
    packed = plain;
    plain.insert(plain.end(), {"-o", dir.file("plain/run")});
    packed.insert(packed.end(), {"-pardo_gz", "-threads", "5", "-o", dir.file("gz/run")});
    ASSERT_EQ(ketra_test::run_ketra(plain, dir.path().string()).status, 0);
    ASSERT_EQ(ketra_test::run_ketra(packed, dir.path().string()).status, 0);
    int pardo_files = 0;
    for (auto const& entry : boost::filesystem::directory_iterator(dir.path() / "plain")) {
        if (entry.path().extension() != ".pardo") continue;
        ++pardo_files;
        std::string const text = ketra_test::read_file(entry.path().string());
        ASSERT_GT(text.size(), 2u << 20) << "too small to have several blocks";
        expect_valid_gzip_of(dir.file("gz/" + entry.path().filename().string() + ".gz"), text);
    }
    EXPECT_EQ(pardo_files, 2);
}
