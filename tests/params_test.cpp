// Command-line parsing, summary and help text of LSMatrixParameters.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "params/parameters.h"
#include "support/test_support.h"

using ketra_test::CoutCapture;
using ketra_test::TempDir;

namespace {

// Parses args (program name added in front); returns what the parser printed.
std::string parse(LSMatrixParameters& p, std::vector<std::string> args) {
    args.insert(args.begin(), "ketra");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    CoutCapture capture;
    p.process_parameters(static_cast<int>(argv.size()), argv.data());
    return capture.text();
}

// A directory that exists for the whole run: no "Creating directory" line.
TempDir const& scratch() {
    static TempDir dir;
    return dir;
}

std::vector<std::string> required(std::string const& out = scratch().file("run")) {
    return {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-tree_file", "trees.txt",
            "-g", "study.gen", "-o", out};
}

std::vector<std::string> with(std::vector<std::string> base, std::vector<std::string> const& more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

}  // namespace

TEST(Parameters, HelpIsToldApartFromHaplotypeFlagByWholeString) {
    LSMatrixParameters p;
    parse(p, with(required(), {"-hx", "ignored"}));
    EXPECT_EQ(p.haplotype_file.string(), "ref.hap");
    EXPECT_TRUE(p.seen("-hx"));
    LSMatrixParameters q;
    EXPECT_THROW(parse(q, {"-h", "x", "-help", "-l"}), HelpException);
    EXPECT_EQ(q.haplotype_file.string(), "x");  // parsed before -help
    EXPECT_EQ(q.legend_file, "NULL");           // after -help: not looked at
}

TEST(Parameters, ValuesAreTakenByPositionAndRecordedAsFlags) {
    LSMatrixParameters p;
    parse(p, with(required(), {"-int", "-1", "5000000", "-buffer", "250.7", "-call_thresh", "abc", "-theta", "0",
                                    "-tavlo_input", "-detail", "-print_matrix", "-g", "second.gen"}));
    EXPECT_EQ(p.lower, -1);
    EXPECT_EQ(p.upper, 5000000);
    EXPECT_TRUE(p.seen("-1"));  // a value starting with "-" also counts as a flag
    EXPECT_EQ(p.buffer, 250);   // atoi drops the fraction
    EXPECT_EQ(p.call_thresh, 0);
    EXPECT_EQ(p.theta, 0);
    EXPECT_TRUE(p.tavlo_input && p.detail && p.print_matrix);
    EXPECT_EQ(p.genotype_file.string(), "second.gen");  // a repeated flag: the later value wins
    EXPECT_EQ(p.command_line.substr(0, 9), "ketra -h ");
    EXPECT_EQ(p.command_line.back(), ' ');
    LSMatrixParameters q;  // lists stop at the next flag and accumulate
    parse(q, with(required(), {"-exclude_snps", "a", "b", "c", "-Ne", "100", "-exclude_snps", "d"}));
    EXPECT_EQ(q.exclude_snps_files, (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_EQ(q.Ne, 100);
    LSMatrixParameters r;
    parse(r, with(required(), {"-exclude_snps", "-Ne", "5", "-exclude_samples", "x", "-sample", "s"}));
    EXPECT_TRUE(r.exclude_snps_files.empty());
    EXPECT_TRUE(r.seen("-exclude_snps"));
    EXPECT_EQ(r.sample_file.string(), "s");
}

TEST(Parameters, NeOutsideItsRangeWarnsAndKeepsTheValue) {
    for (std::string const ne : {"0", "30000", "30001", "-1", "-0.5"}) {
        LSMatrixParameters p;
        bool const warns = ne != "0" && ne != "30000";
        EXPECT_EQ(parse(p, with(required(), {"-Ne", ne})), warns ? "Error: Ne needs to be set\n" : "") << ne;
        EXPECT_EQ(p.Ne, std::atof(ne.c_str()));
    }
}

TEST(Parameters, MissingFlagsAndValuesAreReported) {
    std::vector<std::pair<std::vector<std::string>, std::string>> const cases = {
        {{}, "Flag error-h"},
        {{"-h", "a"}, "Flag error-l"},
        {{"-h", "a", "-l", "b", "-m", "c", "-g", "d", "-o", "e"}, "Flag error-tree_file"},
        {{"-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-o", "e"}, "Flag error-g"},
        {with(required(), {"-exclude_samples", "x"}), "Flag error-sample"},
        {with(required(), {"-Ne"}), "Must specify a value for flag-Ne"},
        {with(required(), {"-int", "5"}), "Must specify a value for flag-int"},
        {{"-o"}, "Must specify a value for flag-o"},
    };
    for (auto const& [args, message] : cases) {
        LSMatrixParameters p;
        std::string got = "no exception";
        try {
            parse(p, args);
        } catch (MissingFlagException const& e) {
            got = e.message;
        }
        EXPECT_EQ(got, "ERROR!!! " + message);
    }
}

TEST(Parameters, OutputDirectoryIsCreatedWithParents) {
    TempDir dir;
    std::string const nested = dir.file("a/b");
    LSMatrixParameters p;
    std::string const out = parse(p, required(nested + "/run1"));
    EXPECT_EQ(out, "Creating directory " + nested + "\n");
    EXPECT_TRUE(ketra_test::file_exists(nested));
    EXPECT_EQ(p.output_dir.string(), nested);

    LSMatrixParameters again;  // exists now: nothing printed
    EXPECT_EQ(parse(again, required(nested + "/run2")), "");

    LSMatrixParameters bare;  // no directory part: the message with nothing after it
    EXPECT_EQ(parse(bare, required("run1")), "Creating directory \n");
}

TEST(Parameters, SummaryIsWrittenExactly) {
    TempDir dir;
    LSMatrixParameters p;
    std::string const out = dir.file("run");
    parse(p, with(required(out), {"-int", "15000000", "15500000", "-sample", "s.txt", "-exclude_snps", "x", "y"}));
    std::ostringstream os;
    p.parameters_summary(os);
    auto line = [](std::string const& label, std::string const& value) {
        return std::string(60 - label.size(), ' ') + label + value + "\n";
    };
    std::string const expected =
        "Command line output is:\n" + p.command_line + "\n\n" + "FILE INPUTS\n" +
        line("haplotype file: ", "ref.hap") + line("legend file: ", "ref.legend") +
        line("genetic map file: ", "map.txt") + line("genotype file: ", "study.gen") + line("output file: ", out) +
        line("tree file: ", "trees.txt") + line("strand file: ", "") + line("SNP exclusion list: ", "x y ") +
        line("sample file: ", "s.txt") + line("sample exclusion list: ", "") + "\n" + "PARAMETER INPUTS\n" +
        line("buffer: ", "500") + line("call threshold: ", "0.9") + line("lower: ", "1.5e+07") +
        line("upper: ", "1.55e+07") + line("Ne: ", "11418") + line("theta: ", "-1") + "\n";
    EXPECT_EQ(os.str(), expected);
}

TEST(Parameters, HelpTextIsWrittenExactly) {
    LSMatrixParameters p;
    std::ostringstream os;
    p.parameters_help(os);
    auto row = [](std::string const& flag, std::string const& text) {
        return flag + std::string(flag.size() < 33 ? 33 - flag.size() : 0, ' ') + text;
    };
    std::string const expected =
        "Ketra help menu.\n\nEssential parameters are:\n" +
        row("-h <file> ", ": the reference panel (e.g. HapMap) file\n") +
        row("-l <file> ", ": the legend file to the reference panel\n") +
        row("-m <file> ... ", ": the recombinaion rate file\n") +
        row("-int <pos1> <pos2> ", ": the physical position interval of interest (pos2>pos1) \n") +
        row("-tree_file <file>", ": the tree file \n") + row("-g <file> ", ": the genotype file in pardo format\n\n") +
        "Optional parameters are:\n" +
        row("-buffer <int>", ": the buffer region either side of region of interest in kb, default is 500\n") +
        row("-call_thresh <p>", ": the threshold of the genotype probabilities, default is 0.9\n") +
        row("-exclude_snps <file>", ": the file of snpids and rsids for SNPs to be excluded\n") +
        row("-exclude_samples <file>",
            ": the set of sample ids of individuals to be excluded, sample file must be supplied\n") +
        row("-Ne <n>", ": the effective population side, defaults to 11418\n") +
        row("-sample <file>", ": the sample file for the set of individuals in the supplied genotype file\n") +
        row("-strand <file>", ": the strand file\n\n");
    EXPECT_EQ(os.str(), expected);
}
