// Damaged compressed input: a gzip file that is cut, corrupt or not gzip at
// all is an error naming the file, never a shorter or empty file.
#include <gtest/gtest.h>

#include "io/badfilename.h"
#include "io/gzip_member.h"
#include "io/text_stream.h"
#include "support/test_support.h"

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
        {"compressed.txt", gz, "", ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(dir.file(c.name), c.bytes);
        std::string error;
        std::string const text = read_all(dir.file(c.name), error);
        if (c.error.empty()) {
            EXPECT_EQ(error, "");
            EXPECT_TRUE(c.text.empty() || text == c.text) << text.size() << " bytes, not " << c.text.size();
        } else {
            EXPECT_EQ(error.rfind("Error reading file " + dir.file(c.name) + ": " + c.error, 0), 0u) << error;
            EXPECT_LT(text.size(), big.size());
        }
    }
}
