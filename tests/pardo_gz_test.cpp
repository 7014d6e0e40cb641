// Compressed pardo files: gzip members that the standard tools and the
// program's own reader accept, and runs whose files, decompressed, are the
// plain run's bytes, also when a file's blocks are compressed by several threads.
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

namespace fs = boost::filesystem;
using ketra_test::read_file;
using ketra_test::TempDir;

namespace {

// Status of a shell command (gzip -t and zcat are what users check files with).
int shell(std::string const& command) { return std::system((command + " 2>/dev/null").c_str()); }

std::string zcat(std::string const& gz) {
    std::string const out = gz + ".zcat";
    EXPECT_EQ(shell("zcat '" + gz + "' > '" + out + "'"), 0) << gz;
    return read_file(out);
}

std::vector<std::string> words(std::string const& text) {
    std::istringstream in(text);
    std::vector<std::string> w;
    for (std::string s; in >> s;) w.push_back(s);
    return w;
}

}  // namespace

TEST(PardoGzip, MembersAreOneValidGzipFile) {
    TempDir dir;
    std::string numbers;
    for (int i = 0; numbers.size() < (3u << 20); ++i) numbers += std::to_string(i * 7919 % 100003) + " 0.25 1\n";
    struct Case {
        int level;
        std::vector<std::string> blocks;
    };
    std::vector<Case> const cases = {
        {1, {"one line\n"}},
        {6, {"first block ", "second\n", "third\nfourth\n"}},
        {6, {numbers, "end\n", numbers.substr(0, 12345)}},
        {12, {numbers.substr(100), "x"}},
    };
    for (auto const& c : cases) {
        gzip_compressor compressor(c.level);
        std::string file, text;
        for (auto const& b : c.blocks) {
            compressor.append_member(file, b.data(), b.size());
            text += b;
        }
        std::string const path = dir.file("t.gz");
        ketra_test::write_file(path, file);
        SCOPED_TRACE("level " + std::to_string(c.level) + ", " + std::to_string(c.blocks.size()) + " blocks");
        EXPECT_EQ(shell("gzip -t '" + path + "'"), 0);
        EXPECT_TRUE(zcat(path) == text);
        auto in = open_text_input(path);
        ASSERT_TRUE(in);
        std::string const read((std::istreambuf_iterator<char>(*in)), std::istreambuf_iterator<char>());
        EXPECT_TRUE(read == text);
        if (text.size() > (1u << 20)) {
            EXPECT_LT(file.size() * 2, text.size());  // really compressed
        }
    }
}

// Two files of several 1 MB blocks each: with more threads than files, each
// file's blocks are compressed by several threads at once.
TEST(PardoGzip, ManyBlocksPerFileDecompressToThePlainRun) {
    TempDir dir;
    bench_sizes sizes;
    sizes.haplotypes = 100, sizes.snps = 30, sizes.individuals = 400, sizes.positions = 2;
    std::vector<std::string> const inputs = words(write_bench_inputs(sizes, dir.path().string()));
    auto run = [&](std::string const& out, std::vector<std::string> const& more) {
        std::vector<std::string> a = inputs;
        a.insert(a.end(), more.begin(), more.end());
        a.push_back("-o");
        a.push_back(dir.file(out));
        return ketra_test::run_ketra(a, dir.path().string()).status;
    };
    ASSERT_EQ(run("plain/run", {}), 0);
    std::vector<std::vector<std::string>> const runs = {
        {"-threads", "1"}, {"-threads", "2"}, {"-threads", "5"}, {"-chunk", "1", "2"}, {"-chunk", "2", "2"},
        {"-merge", "2", "-threads", "7"}};
    for (auto const& extra : runs) {
        std::vector<std::string> more = {"-pardo_gz"};
        more.insert(more.end(), extra.begin(), extra.end());
        std::string const folder = extra[0] == "-threads" ? "gz" + extra[1] : "split";
        ASSERT_EQ(run(folder + "/run", more), 0) << folder;
        if (extra[0] == "-chunk") continue;
        int pardo_files = 0;
        for (auto const& entry : fs::directory_iterator(dir.path() / "plain")) {
            std::string const name = entry.path().filename().string();
            if (entry.path().extension() != ".pardo") continue;
            ++pardo_files;
            std::string const plain = read_file(entry.path().string());
            ASSERT_GT(plain.size(), 2u << 20) << "too small to have several blocks: " << name;
            std::string const gz = dir.file(folder + "/" + name + ".gz");
            SCOPED_TRACE(gz);
            EXPECT_EQ(shell("gzip -t '" + gz + "'"), 0);
            EXPECT_TRUE(zcat(gz) == plain);
            EXPECT_TRUE(ketra_test::read_gz_file(gz) == plain);
        }
        EXPECT_EQ(pardo_files, 2);
    }
}
