// Tree map file: the reader on real files (plain and gzip) and the driver's
// handling of its two errors.
#include <map>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "data/badfilename.h"
#include "params/parameters.h"
#include "support/test_support.h"
#include "trees/tree_map.h"

using namespace ketra_test;

namespace {

std::string const kCountLabel = "number of tree location found in region of interest: ";

// A label right-aligned in 60 columns followed by its value, as the console prints it.
std::string line60(std::string const& label, std::string const& value) {
    return std::string(label.size() < 60 ? 60 - label.size() : 0, ' ') + label + value + "\n";
}

struct MapRead {
    std::map<double, std::string> trees;
    std::string console;
    std::string error;  // badfilename text, empty when none was thrown
};

MapRead read_map(std::string const& path, double lower, double upper) {
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

std::string const kTrees =
    "300 0;2;1 2;\n"
    "100 0;2;2 1;\n"
    "99.5 0;2;1 2;\n"
    "200 first\n"
    "250 0;2;1 2;\n"
    "200 second\n"
    "300.5 0;2;1 2;\n"
    "not-a-position 0;2;1 2;\n"
    "\n";

TEST(TreeMapFile, KeepsInclusiveIntervalInOrderFirstLineWins) {
    TempDir dir;
    std::string const path = dir.file("trees.txt");
    write_file(path, kTrees);
    MapRead const r = read_map(path, 100, 300);
    ASSERT_EQ(r.error, "");
    std::map<double, std::string> const expected = {
        {100, "100 0;2;2 1;"}, {200, "200 first"}, {250, "250 0;2;1 2;"}, {300, "300 0;2;1 2;"}};
    EXPECT_EQ(r.trees, expected);
    EXPECT_EQ(r.console, "Reading tree file " + path + " ... done.\n" + line60(kCountLabel, "4") + "\n");
}

TEST(TreeMapFile, GzipChosenByExactExtension) {
    TempDir dir;
    std::string const gz = dir.file("trees.txt.gz");
    write_gz_file(gz, kTrees);
    MapRead const r = read_map(gz, 99, 260);
    ASSERT_EQ(r.error, "");
    EXPECT_EQ(r.trees.size(), 4u);  // 99.5, 100, 200, 250
    EXPECT_EQ(r.trees.at(99.5), "99.5 0;2;1 2;");
    EXPECT_EQ(r.console,
              "Reading tree file " + gz + " ... in gzip mode ... done.\n" + line60(kCountLabel, "4") + "\n");

    // Names that only look compressed are read as plain text.
    for (std::string const name : {"trees.gz.txt", "trees.GZ", "treesgz"}) {
        std::string const path = dir.file(name);
        write_file(path, kTrees);
        MapRead const plain = read_map(path, 99, 260);
        ASSERT_EQ(plain.error, "") << name;
        EXPECT_EQ(plain.trees.size(), 4u) << name;
        EXPECT_EQ(plain.console.find("gzip"), std::string::npos) << name;
    }

    // A compressed file under a plain name is not decompressed: no line parses.
    std::string const hidden = dir.file("compressed.txt");
    write_gz_file(hidden, kTrees);
    EXPECT_EQ(read_map(hidden, 99, 260).error,
              "Error reading file " + hidden + ": no suitable positions found in tree map file.");
}

TEST(TreeMapFile, StripsCarriageReturns) {
    TempDir dir;
    std::string const path = dir.file("crlf.txt.gz");
    write_gz_file(path, "10 0;2;1 2;\r\n20 0;2;2 1;\r\n");
    MapRead const r = read_map(path, 0, 100);
    ASSERT_EQ(r.error, "");
    EXPECT_EQ(r.trees.at(10), "10 0;2;1 2;");
    EXPECT_EQ(r.trees.at(20), "20 0;2;2 1;");
}

TEST(TreeMapFile, Errors) {
    TempDir dir;
    std::string const missing = dir.file("missing.txt");
    MapRead r = read_map(missing, 0, 100);
    EXPECT_EQ(r.error, "Error reading file " + missing + ": can't read tree map file.");
    EXPECT_EQ(r.console, "Reading tree file " + missing + " ... ");

    std::string const missing_gz = dir.file("missing.txt.gz");
    r = read_map(missing_gz, 0, 100);
    EXPECT_EQ(r.error, "Error reading file " + missing_gz + ": can't read tree map file.");
    EXPECT_EQ(r.console, "Reading tree file " + missing_gz + " ... in gzip mode ... ");

    std::string const path = dir.file("trees.txt");
    write_file(path, kTrees);
    std::string const none = "Error reading file " + path + ": no suitable positions found in tree map file.";
    r = read_map(path, 300.6, 1e12);
    EXPECT_EQ(r.error, none);
    EXPECT_EQ(r.console, "Reading tree file " + path + " ... done.\n");
    // An unparsable position never becomes position 0.
    EXPECT_EQ(read_map(path, -1, 1).error, none);

    std::string const empty = dir.file("empty.txt");
    write_file(empty, "");
    EXPECT_EQ(read_map(empty, 0, 1e12).error,
              "Error reading file " + empty + ": no suitable positions found in tree map file.");
}

TEST(TreeMapFile, WithoutIntervalOnlyPositionMinusOneFits) {
    TempDir dir;
    std::string const path = dir.file("trees.txt");
    write_file(path, "0 0;2;1 2;\n-1 0;2;2 1;\n100 0;2;1 2;\n");
    LSMatrixParameters parameters;  // "-int" not given: both bounds -1
    parameters.tree_file = path;
    std::map<double, std::string> trees;
    CoutCapture capture;
    read_tree_map_file(parameters, trees);
    ASSERT_EQ(trees.size(), 1u);
    EXPECT_EQ(trees.at(-1), "-1 0;2;2 1;");
}

// The whole console output of a run up to the tree map stage.
std::string run_prefix(std::vector<std::string> const& args, std::string const& tree_file, std::string const& lower,
                       std::string const& upper) {
    std::string const rule(67, '=');
    std::string out = "\n\n" + rule + "\n  Welcome to Ketra (part of the Sandrelo software)   \n" +
                      "  haplotype-pair copying probabilities along local genealogies\n" + rule + "\n\n";
    out += "Command line output is:\n" + std::string(KETRA_BINARY) + " ";
    for (auto const& a : args) out += a + " ";
    out += "\n\nFILE INPUTS\n";
    out += line60("haplotype file: ", "h.txt") + line60("legend file: ", "l.txt") +
           line60("genetic map file: ", "m.txt") + line60("genotype file: ", "g.txt") +
           line60("output file: ", "out/run") + line60("tree file: ", tree_file) + line60("strand file: ", "") +
           line60("SNP exclusion list: ", "") + line60("sample file: ", "") + line60("sample exclusion list: ", "") +
           "\n";
    out += "PARAMETER INPUTS\n" + line60("buffer: ", "500") + line60("call threshold: ", "0.9") +
           line60("lower: ", lower) + line60("upper: ", upper) + line60("Ne: ", "11418") + line60("theta: ", "-1") +
           "\n";
    return out;
}

std::vector<std::string> run_args(std::string const& tree_file, std::vector<std::string> const& interval) {
    std::vector<std::string> args = {"-h", "h.txt", "-l", "l.txt", "-m", "m.txt"};
    args.insert(args.end(), interval.begin(), interval.end());
    std::vector<std::string> const rest = {"-tree_file", tree_file, "-g", "g.txt", "-o", "out/run"};
    args.insert(args.end(), rest.begin(), rest.end());
    return args;
}

TEST(TreeMapDriver, MissingTreeFileEndsWithStatusOne) {
    TempDir dir;
    boost::filesystem::create_directories(dir.path() / "out");
    auto const args = run_args("missing.txt.gz", {"-int", "100", "15000000"});
    RunResult const r = run_ketra(args, dir.path().string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, run_prefix(args, "missing.txt.gz", "100", "1.5e+07") +
                         "Reading tree file missing.txt.gz ... in gzip mode ... "
                         "Error reading file missing.txt.gz: can't read tree map file.\n"
                         "Program terminated\n");
}

TEST(TreeMapDriver, NoPositionInRangeEndsWithStatusOne) {
    TempDir dir;
    boost::filesystem::create_directories(dir.path() / "out");
    write_file(dir.file("trees.txt"), "50 0;2;1 2;\n300 0;2;1 2;\n");
    std::string const failure =
        "Reading tree file trees.txt ... done.\n"
        "Error reading file trees.txt: no suitable positions found in tree map file.\n"
        "Program terminated\n";

    auto const args = run_args("trees.txt", {"-int", "100", "200"});
    RunResult r = run_ketra(args, dir.path().string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, run_prefix(args, "trees.txt", "100", "200") + failure);

    // Without "-int" the bounds stay at -1, so no position fits.
    auto const no_interval = run_args("trees.txt", {});
    r = run_ketra(no_interval, dir.path().string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, run_prefix(no_interval, "trees.txt", "-1", "-1") + failure);
}

}  // namespace
