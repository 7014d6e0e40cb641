// Tree map file: the reader on real files (plain and gzip) and the driver's
// handling of its two errors.
#include <map>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "io/badfilename.h"
#include "params/parameters.h"
#include "support/test_support.h"
#include "trees/tree_map.h"

using namespace ketra_test;

namespace {

// A label right-aligned in 60 columns followed by its value, as the console prints it.
std::string line60(std::string const& label, std::string const& value) {
    return std::string(60 - label.size(), ' ') + label + value + "\n";
}

struct MapRead {
    std::map<double, std::string> trees;
    std::string console, error;  // error: badfilename text, empty when none was thrown
};

MapRead read_map(std::string const& path, double lower = -1, double upper = -1) {
    LSMatrixParameters parameters;
    parameters.tree_file = path;
    parameters.lower = lower;
    parameters.upper = upper;
    MapRead result;
    CoutCapture capture;
    try {
        read_tree_map_file(parameters, result.trees);
    } catch (badfilename const& e) {
        result.error = e.what();
    }
    result.console = capture.text();
    return result;
}

std::string const kTrees = "300 0;2;1 2;\n100 0;2;2 1;\n99.5 0;2;1 2;\n200 first\n250 0;2;1 2;\n200 second\n"
                           "300.5 0;2;1 2;\nnot-a-position 0;2;1 2;\n\n";
std::string const kFound = line60("number of tree location found in region of interest: ", "4") + "\n";

}  // namespace

TEST(TreeMapFile, KeepsInclusiveIntervalInOrderFirstLineWins) {
    TempDir dir;
    write_file(dir.file("trees.txt"), kTrees);
    MapRead const r = read_map(dir.file("trees.txt"), 100, 300);
    EXPECT_EQ(r.error, "");
    std::map<double, std::string> const expected = {
        {100, "100 0;2;2 1;"}, {200, "200 first"}, {250, "250 0;2;1 2;"}, {300, "300 0;2;1 2;"}};
    EXPECT_EQ(r.trees, expected);
    EXPECT_EQ(r.console, "Reading tree file " + dir.file("trees.txt") + " ... done.\n" + kFound);

    // Without "-int" both bounds are still -1: only a line at -1 fits.
    write_file(dir.file("trees.txt"), "0 0;2;1 2;\n-1 0;2;2 1;\n100 0;2;1 2;\n");
    EXPECT_EQ(read_map(dir.file("trees.txt")).trees, (std::map<double, std::string>{{-1, "-1 0;2;2 1;"}}));
}

TEST(TreeMapFile, GzipChosenByExactExtension) {
    TempDir dir;
    std::string const gz = dir.file("trees.txt.gz");
    write_gz_file(gz, kTrees);
    MapRead r = read_map(gz, 99, 260);
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.trees.size(), 4u);  // 99.5, 100, 200, 250
    EXPECT_EQ(r.trees.at(99.5), "99.5 0;2;1 2;");
    EXPECT_EQ(r.console, "Reading tree file " + gz + " ... in gzip mode ... done.\n" + kFound);
    write_gz_file(gz, "10 0;2;1 2;\r\n20 0;2;2 1;\r\n");  // carriage returns are stripped
    EXPECT_EQ(read_map(gz, 0, 100).trees, (std::map<double, std::string>{{10, "10 0;2;1 2;"}, {20, "20 0;2;2 1;"}}));

    // Names that only look compressed are read as plain text.
    for (std::string const name : {"trees.gz.txt", "trees.GZ", "treesgz"}) {
        write_file(dir.file(name), kTrees);
        r = read_map(dir.file(name), 99, 260);
        EXPECT_EQ(r.trees.size(), 4u) << name;
        EXPECT_EQ(r.console.find("gzip"), std::string::npos) << name;
    }
    // A compressed file under a plain name is not decompressed: no line parses.
    write_gz_file(dir.file("compressed.txt"), kTrees);
    EXPECT_EQ(read_map(dir.file("compressed.txt"), 99, 260).error,
              "Error reading file " + dir.file("compressed.txt") + ": no suitable positions found in tree map file.");
}

TEST(TreeMapFile, Errors) {
    TempDir dir;
    for (std::string const name : {"missing.txt", "missing.txt.gz"}) {
        MapRead const r = read_map(dir.file(name), 0, 100);
        EXPECT_EQ(r.error, "Error reading file " + dir.file(name) + ": can't read tree map file.");
        std::string const mode = name.back() == 'z' ? "in gzip mode ... " : "";
        EXPECT_EQ(r.console, "Reading tree file " + dir.file(name) + " ... " + mode);
    }
    std::string const path = dir.file("trees.txt"), empty = dir.file("empty.txt");
    write_file(path, kTrees);
    write_file(empty, "");
    MapRead const r = read_map(path, 300.6, 1e12);
    EXPECT_EQ(r.error, "Error reading file " + path + ": no suitable positions found in tree map file.");
    EXPECT_EQ(r.console, "Reading tree file " + path + " ... done.\n");
    EXPECT_EQ(read_map(path, -1, 1).error, r.error);  // an unparsable position never becomes position 0
    EXPECT_EQ(read_map(empty, 0, 1e12).error,
              "Error reading file " + empty + ": no suitable positions found in tree map file.");
}

TEST(TreeMapDriver, MissingFileOrNoPositionInRangeEndsWithStatusOne) {
    TempDir dir;
    boost::filesystem::create_directories(dir.path() / "out");
    write_file(dir.file("trees.txt"), "50 0;2;1 2;\n300 0;2;1 2;\n");
    std::string const none = "Reading tree file trees.txt ... done.\n"
                             "Error reading file trees.txt: no suitable positions found in tree map file.\n";
    struct Case { std::string tree_file; std::vector<std::string> interval; std::string lower, upper, failure; };
    std::vector<Case> const cases = {
        {"missing.txt.gz", {"-int", "100", "15000000"}, "100", "1.5e+07",
         "Reading tree file missing.txt.gz ... in gzip mode ... Error reading file missing.txt.gz: can't read tree "
         "map file.\n"},
        {"trees.txt", {"-int", "100", "200"}, "100", "200", none},
        {"trees.txt", {}, "-1", "-1", none},  // without "-int" the bounds stay at -1, so no position fits
    };
    std::string const rule(67, '=');
    for (auto const& c : cases) {
        std::vector<std::string> args = {"-h", "h.txt", "-l", "l.txt", "-m", "m.txt"};
        args.insert(args.end(), c.interval.begin(), c.interval.end());
        args.insert(args.end(), {"-tree_file", c.tree_file, "-g", "g.txt", "-o", "out/run"});
        std::string expected = "\n\n" + rule + "\n  Welcome to Ketra (part of the Sandrelo software)   \n" +
                               "  haplotype-pair copying probabilities along local genealogies\n" + rule +
                               "\n\nCommand line output is:\n" + std::string(KETRA_BINARY) + " ";
        for (auto const& a : args) expected += a + " ";
        expected += "\n\nFILE INPUTS\n" + line60("haplotype file: ", "h.txt") + line60("legend file: ", "l.txt") +
                    line60("genetic map file: ", "m.txt") + line60("genotype file: ", "g.txt") +
                    line60("output file: ", "out/run") + line60("tree file: ", c.tree_file) +
                    line60("strand file: ", "") + line60("SNP exclusion list: ", "") + line60("sample file: ", "") +
                    line60("sample exclusion list: ", "") + "\nPARAMETER INPUTS\n" + line60("buffer: ", "500") +
                    line60("call threshold: ", "0.9") + line60("lower: ", c.lower) + line60("upper: ", c.upper) +
                    line60("Ne: ", "11418") + line60("theta: ", "-1") + "\n" + c.failure + "Program terminated\n";
        RunResult const r = run_ketra(args, dir.path().string());
        EXPECT_EQ(r.status, 1) << c.tree_file;
        EXPECT_EQ(r.out, expected);
    }
}
