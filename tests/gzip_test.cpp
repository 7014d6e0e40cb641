// Compressed files. Input: a gzip file that is cut, corrupt or not gzip at all
// is an error naming the file, never a shorter or empty file. Output: a run
// whose pardo files of several 1 MB blocks are compressed by several threads
// at once must write gzip files that zcat turns back into the plain run's files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "bench_inputs.h"
#include "io/badfilename.h"
#include "io/gzip_member.h"
#include "io/text_stream.h"
#include "support/test_support.h"

namespace fs = boost::filesystem;
using namespace ketra_test;

namespace {

// Text read through open_text_input line by line; error gets the message it ended with.
std::string read_all(std::string const& path, std::string& error) {
    auto in = open_text_input(path);
    std::string text, line;
    try {
        while (in && read_text_line(*in, line)) text += line + "\n";
    } catch (badfilename const& e) {
        error = e.what();
    }
    return text;
}

std::string gz_bytes(TempDir const& dir, std::string const& content) {
    write_file(dir.file("tmp.gz"), content, true);
    return read_file(dir.file("tmp.gz"));
}

}  // namespace

TEST(DamagedInput, ReaderStreamReportsDamageAndReadsWholeFilesToTheEnd) {
    TempDir dir;
    std::string const gen = read_file(source_dir() + "/tests/data/small/study.gen");
    std::string big;
    for (int i = 0; i < 2000; ++i) big += gen;  // enough data that a cut lands inside the deflate stream
    std::string const gz = gz_bytes(dir, big);
    std::string flipped = gz, members, huge = std::string(3 << 20, 'x') + "\n";
    flipped[flipped.size() / 2] ^= 0x10;
    // Independently compressed blocks, as -pardo_gz writes them, read as one text.
    for (std::string const& block : {std::string("first block "), std::string("second\n"), huge, gen})
        append_gzip_member(members, block, 1);

    // A plain name reads the compressed bytes as they are, line by line (a
    // line's carriage return before its end dropped, the last line ended).
    std::string gz_as_lines;
    for (std::size_t at = 0, end; at < gz.size(); at = end + 1) {
        end = std::min(gz.find('\n', at), gz.size());
        std::string line = gz.substr(at, end - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        gz_as_lines += line + "\n";
    }
    struct Case { std::string name, bytes, text, error; };
    std::vector<Case> const cases = {
        {"whole.gz", gz, big, ""},
        {"two_members.gz", gz + gz_bytes(dir, gen), big + gen, ""},
        {"blocks.gz", members, "first block second\n" + huge + gen, ""},
        {"cut.gz", gz.substr(0, gz.size() / 2), "", "compressed data are truncated."},
        {"no_trailer.gz", gz.substr(0, gz.size() - 4), "", "compressed data are truncated or corrupt."},
        {"flipped.gz", flipped, "", "compressed data are"},
        {"plain.gz", gen, "", "not in gzip format."},
        {"empty.gz", "", "", "not in gzip format."},
        {"header_only.gz", gz.substr(0, 10), "", "compressed data are truncated."},
        // Plain names are read as text whatever the bytes: the choice is by name alone.
        {"compressed.txt", gz, gz_as_lines, ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(dir.file(c.name), c.bytes);
        std::string error;
        std::string const text = read_all(dir.file(c.name), error);
        if (c.error.empty()) {
            EXPECT_EQ(error, "");
            EXPECT_TRUE(text == c.text) << text.size() << " bytes, not " << c.text.size();
        } else {
            EXPECT_EQ(error.rfind("Error reading file " + dir.file(c.name) + ": " + c.error, 0), 0u) << error;
            EXPECT_LT(text.size(), big.size());
        }
    }
}

// Two pardo files of several blocks each and more threads than files.
TEST(PardoGzip, ManyBlocksPerFileDecompressToThePlainRun) {
    TempDir dir;
    bench_sizes sizes;
    sizes.haplotypes = 100, sizes.snps = 30, sizes.individuals = 400, sizes.positions = 2;
    std::istringstream inputs(write_bench_inputs(sizes, dir.path().string()));
    std::vector<std::string> plain, packed;
    for (std::string w; inputs >> w;) plain.push_back(w);
    packed = plain;
    plain.insert(plain.end(), {"-o", dir.file("plain/run")});
    packed.insert(packed.end(), {"-pardo_gz", "-threads", "5", "-o", dir.file("gz/run")});
    ASSERT_EQ(run_ketra(plain, dir.path().string()).status, 0);
    ASSERT_EQ(run_ketra(packed, dir.path().string()).status, 0);
    int pardo_files = 0;
    for (auto const& entry : fs::directory_iterator(dir.path() / "plain")) {
        if (entry.path().extension() != ".pardo") continue;
        ++pardo_files;
        std::string const text = entry.path().string();
        std::string const gz = dir.file("gz/" + entry.path().filename().string() + ".gz");
        ASSERT_GT(fs::file_size(text), 2u << 20) << "too small to have several blocks";
        EXPECT_LT(fs::file_size(gz) * 2, fs::file_size(text)) << "not compressed";
        EXPECT_EQ(std::system(("zcat '" + gz + "' | cmp -s - '" + text + "'").c_str()), 0) << gz;
    }
    EXPECT_EQ(pardo_files, 2);
}
