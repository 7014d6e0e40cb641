// Damaged compressed input: a gzip file that is cut, corrupt or not gzip at
// all is an error naming the file, never a shorter or empty file.
#include <gtest/gtest.h>

#include <algorithm>

#include <boost/filesystem/operations.hpp>

#include "io/badfilename.h"
#include "io/text_stream.h"
#include "support/test_support.h"

using namespace ketra_test;

namespace {

std::string const small_dir = source_dir() + "/tests/data/small/";

// Lines read through open_text_input, or the error text it ended with.
std::string read_all(std::string const& path, int& lines) {
    lines = 0;
    auto in = open_text_input(path);
    if (!in) return "cannot open";
    std::string line;
    try {
        while (read_text_line(*in, line)) ++lines;
    } catch (badfilename const& e) {
        return e.what();
    }
    return "";
}

std::string gz_bytes(TempDir const& dir, std::string const& content) {
    write_gz_file(dir.file("tmp.gz"), content);
    return read_file(dir.file("tmp.gz"));
}

bool ends_with(std::string const& text, std::string const& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

TEST(DamagedInput, ReaderStreamReportsDamageAndReadsWholeFilesToTheEnd) {
    TempDir dir;
    std::string const gen = read_file(small_dir + "study.gen");
    std::string big;
    for (int i = 0; i < 2000; ++i) big += gen;  // enough data that a cut lands inside the deflate stream
    std::string const gz = gz_bytes(dir, big);
    std::string flipped = gz;
    flipped[flipped.size() / 2] ^= 0x10;

    struct Case { std::string name, bytes, error; };
    std::vector<Case> const cases = {
        {"whole.gz", gz, ""},
        {"two_members.gz", gz + gz_bytes(dir, gen), ""},
        {"cut.gz", gz.substr(0, gz.size() / 2), "compressed data are truncated."},
        {"no_trailer.gz", gz.substr(0, gz.size() - 4), "compressed data are truncated or corrupt."},
        {"flipped.gz", flipped, "compressed data are"},
        {"plain.gz", gen, "not in gzip format."},
        {"empty.gz", "", "not in gzip format."},
        {"header_only.gz", gz.substr(0, 10), "compressed data are truncated."},
        // Plain names are read as text whatever the bytes: the choice is by name alone.
        {"compressed.txt", gz, ""},
    };
    int const whole_lines = static_cast<int>(std::count(big.begin(), big.end(), '\n'));
    for (auto const& c : cases) {
        write_file(dir.file(c.name), c.bytes);
        int lines = 0;
        std::string const error = read_all(dir.file(c.name), lines);
        if (c.error.empty()) {
            EXPECT_EQ(error, "") << c.name;
            if (c.name == "whole.gz") {
                EXPECT_EQ(lines, whole_lines);
            }
        } else {
            EXPECT_EQ(error.rfind("Error reading file " + dir.file(c.name) + ": " + c.error, 0), 0u)
                << c.name << ": " << error;
            EXPECT_LT(lines, whole_lines) << c.name;
        }
    }
}

TEST(DamagedInput, RunEndsWithTheReadersErrorAndItsStatus) {
    TempDir dir;
    for (char const* f : {"ref.hap", "ref.legend", "map.txt", "study.gen", "trees.txt"})
        boost::filesystem::copy_file(small_dir + f, dir.file(f));
    std::string const gz = gz_bytes(dir, read_file(small_dir + "study.gen"));
    write_file(dir.file("cut.gen.gz"), gz.substr(0, gz.size() - 12));
    write_file(dir.file("plain.gen.gz"), read_file(small_dir + "study.gen"));
    write_file(dir.file("plain_trees.gz"), read_file(small_dir + "trees.txt"));
    std::string const trees_gz = gz_bytes(dir, read_file(small_dir + "trees.txt"));
    write_file(dir.file("cut_trees.gz"), trees_gz.substr(0, trees_gz.size() / 2));

    auto args = [](std::string const& gen, std::string const& trees) {
        return std::vector<std::string>{"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", gen,
                                        "-tree_file", trees, "-int", "900", "2000", "-buffer", "0", "-o", "out/run"};
    };
    // Genotype errors keep the data stage's status 0 by default; the tree map's is 1.
    struct Case { std::string gen, trees, tail; int status; };
    std::vector<Case> const cases = {
        {"cut.gen.gz", "trees.txt", "Error reading file cut.gen.gz: compressed data are truncated", 0},
        {"plain.gen.gz", "trees.txt", "Error reading file plain.gen.gz: not in gzip format.", 0},
        {"study.gen", "plain_trees.gz", "Error reading file plain_trees.gz: not in gzip format.", 1},
        {"study.gen", "cut_trees.gz", "Error reading file cut_trees.gz: compressed data are truncated", 1},
    };
    for (auto const& c : cases) {
        for (bool strict : {false, true}) {
            auto a = args(c.gen, c.trees);
            if (strict) a.push_back("-strict");
            auto const r = run_ketra(a, dir.path().string());
            EXPECT_EQ(r.status, strict ? 1 : c.status) << c.gen << " " << c.trees;
            std::size_t const at = r.out.find(c.tail);
            ASSERT_NE(at, std::string::npos) << r.out;
            EXPECT_TRUE(ends_with(r.out, "\nProgram terminated\n")) << r.out;
            EXPECT_EQ(r.out.find("Ketra complete!"), std::string::npos);
            EXPECT_EQ(r.err, "");
        }
    }
}
