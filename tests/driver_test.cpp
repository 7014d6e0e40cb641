// The program as a user starts it: banner, help, flag errors and exit statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "params/parameters.h"
#include "support/test_support.h"

using ketra_test::run_ketra;

namespace {

std::string const banner =
    "\n\n" + std::string(67, '=') + "\n" + "  Welcome to Ketra (part of the Sandrelo software)   \n" +
    "  haplotype-pair copying probabilities along local genealogies\n" + std::string(67, '=') + "\n\n";

}  // namespace

TEST(Driver, FlagErrorsEndWithStatusOneAndHelpWithZero) {
    std::ostringstream help;
    LSMatrixParameters().parameters_help(help);
    struct Case { std::vector<std::string> args; int status; std::string out; };
    std::vector<Case> const cases = {
        {{}, 1, "ERROR!!! Flag error-h\n"},
        {{"-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-g", "g", "-o"}, 1,
         "ERROR!!! Must specify a value for flag-o\n"},
        {{"-help"}, 0, help.str()},
        {{"-g", "x", "-help", "-o"}, 0, help.str()},
    };
    for (auto const& c : cases) {
        auto const r = run_ketra(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, banner + c.out);
        EXPECT_EQ(r.err, "");
    }
}

namespace {

std::string const closing =
    "Ketra took X seconds to complete.\n\n\n"
    "Ketra complete! Please run Ovrin once you have ran Ketra on all your case and control genotype data.\n";

bool ends_with(std::string const& text, std::string const& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Copies the bundled example data set into dir.
void copy_example(ketra_test::TempDir const& dir) {
    namespace fs = boost::filesystem;
    fs::path const example = fs::path(ketra_test::source_dir()) / "examples" / "chr20-small";
    for (auto const& entry : fs::directory_iterator(example))
        if (fs::is_regular_file(entry.path())) fs::copy_file(entry.path(), dir.path() / entry.path().filename());
}

std::vector<std::string> example_args() {
    return {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", "study.gen.gz", "-tree_file", "trees.txt",
            "-int", "1350000", "1395000", "-buffer", "15", "-o", "out/run"};
}

}  // namespace

TEST(Driver, InputFileErrorsAfterTheTreeMapEndWithStatusZero) {
    ketra_test::TempDir dir;
    ketra_test::write_file(dir.file("trees.txt"), "150 0;2;1 2;\n");
    auto r = run_ketra({"-h", "a.hap", "-l", "a.legend", "-m", "absent.map", "-tree_file", "trees.txt", "-g", "g",
                        "-o", "run", "-int", "100", "200"},
                       dir.path().string());
    EXPECT_EQ(r.status, 0);
    std::string tail = "reading genetic map file ... Error reading file absent.map: can't open file.\n"
                       "Program terminated\n";
    EXPECT_TRUE(ends_with(r.out, tail)) << r.out;
    EXPECT_EQ(r.out.find("Ketra complete!"), std::string::npos);
    EXPECT_EQ(r.err, "");

    // A later reader fails the same way: the strand file, after map, panel and genotypes were read.
    ketra_test::TempDir example;
    copy_example(example);
    std::vector<std::string> args = example_args();
    args.insert(args.end(), {"-strand", "absent.strand"});
    r = run_ketra(args, example.path().string());
    EXPECT_EQ(r.status, 0);
    tail = "Reading strand file ... Error reading file absent.strand: can't open strand file\n"
           "Program terminated\n";
    EXPECT_TRUE(ends_with(r.out, tail)) << r.out;
}

TEST(Driver, SnpInfoTakesNoValueAndTheRunCloses) {
    ketra_test::TempDir dir;
    copy_example(dir);
    std::vector<std::string> args = example_args();
    // "extra" follows -snp_info but is not its value: it is only a further word of the command line.
    args.insert(args.end(), {"-snp_info", "extra"});
    auto const r = run_ketra(args, dir.path().string());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    std::string const out = ketra_test::mask_timing(r.out);

    EXPECT_EQ(out.substr(0, banner.size() + 23), banner + "Creating directory out\n");
    std::size_t const aux = out.find("\nwriting .aux file: out/run.aux\n\n");
    std::size_t const info = out.find("Outputing snp information to file out/run.snp_info.txt ... done\n");
    ASSERT_NE(aux, std::string::npos);
    ASSERT_NE(info, std::string::npos);
    EXPECT_LT(aux, info);
    EXPECT_TRUE(ends_with(out, closing)) << out;

    std::string const lines = ketra_test::read_file(dir.file("out/run.snp_info.txt"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 267);
    EXPECT_EQ(lines.substr(0, 38), "SNP1335023 rs6134682 1335023.000000 0.");
    EXPECT_TRUE(ketra_test::file_exists(dir.file("out/run.aux")));
}
