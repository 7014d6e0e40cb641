// The program as a user starts it: banner, help, flag errors and exit statuses.
#include <gtest/gtest.h>

#include <sstream>

#include "params/parameters.h"
#include "support/test_support.h"

using ketra_test::run_ketra;

namespace {

std::string const banner =
    "\n\n" + std::string(67, '=') + "\n" + "  Welcome to Ketra (part of the Sandrelo software)   \n" +
    "  haplotype-pair copying probabilities along local genealogies\n" + std::string(67, '=') + "\n\n";

}  // namespace

TEST(Driver, NoArgumentsReportsTheFirstRequiredFlag) {
    auto r = run_ketra({});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, banner + "ERROR!!! Flag error-h\n");
    EXPECT_EQ(r.err, "");
}

TEST(Driver, HelpPrintsTheHelpTextAndSucceeds) {
    std::ostringstream help;
    LSMatrixParameters().parameters_help(help);
    for (auto const& args : {std::vector<std::string>{"-help"}, std::vector<std::string>{"-g", "x", "-help", "-o"}}) {
        auto r = run_ketra(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, banner + help.str());
        EXPECT_EQ(r.err, "");
    }
}

TEST(Driver, ValueFlagAtTheEndFailsWithStatusOne) {
    auto r = run_ketra({"-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-g", "g", "-o"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, banner + "ERROR!!! Must specify a value for flag-o\n");
}

TEST(Driver, MissingTreeMapFileEndsWithStatusOne) {
    ketra_test::TempDir dir;
    auto r = run_ketra({"-h", "a", "-l", "b", "-m", "c", "-tree_file", "absent.txt", "-g", "g", "-o", "run"},
                       dir.path().string());
    EXPECT_EQ(r.status, 1);
    std::string const tail =
        "Reading tree file absent.txt ... Error reading file absent.txt: can't read tree map file.\n"
        "Program terminated\n";
    ASSERT_GE(r.out.size(), tail.size());
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    EXPECT_EQ(r.out.substr(0, banner.size()), banner);
    EXPECT_NE(r.out.find("Creating directory \n"), std::string::npos);
}
