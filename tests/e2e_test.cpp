// The whole program on the small data set, one case a row: flags, input files
// written over the data set, and the expected console and files. A case with a
// golden folder (tests/data/small/expected/<name>) compares stdout.txt and
// every file written, byte for byte (gzip files as <file>.unzipped). Every
// completed case runs again on three threads, and under -strict unless it
// relies on the default run's leniency, and must give the same bytes.
// Regenerate after an intended change with KETRA_UPDATE_GOLDEN=1 ctest -R E2e,
// and review the diff.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "support/test_support.h"

namespace fs = boost::filesystem;
using namespace ketra_test;

namespace {

struct Case {
    std::string name;
    std::vector<std::string> flags;             // after the small data set's flags, unless `alone`
    std::map<std::string, std::string> inputs;  // written into the run folder first
    std::string golden;                          // expected folder, or ""
    int status = 0;
    std::string expect = "";  // expected in stdout; at its end when the run fails
    bool alone = false;
    bool lenient = false;  // completes only without -strict
    std::string expect_in = "stdout.txt";  // the output file `expect` is looked for in
};

std::string const closing =
    "\nfinished\nKetra took X seconds to complete.\n\n\n"
    "Ketra complete! Please run Ovrin once you have ran Ketra on all your case and control genotype data.\n";

// Genotypes for the "options" case; SNPdup names two SNPs.
std::string const options_gen =
    "SNP1000 rs1 1000 A G 0 0 1 0 1 0 0.4 0.3 0.3\n"
    "SNP1100 other 1100 T C 0 1 0 0.3 0.6 0.1 1 0 0\n"
    "SNP1250 rs3 1250 A C 0.5 0.5 0 0 1 0 1 0 0\n"
    "SNPdup rs4 1400 G T 1 0 0 0 0.95 0.05 0 1 0\n"
    "SNP1500 rs5 1500 C T 0 1 0 1 0 0 0 0 1\n"
    "SNPdup rs7 1900 T A 0 1 0 0 1 0 1 0 0\n";

std::vector<Case> const cases = {
    {"all_outputs", {"-tavlo_input", "-print_matrix", "-detail", "-snp_info"}, {}, "all_outputs"},
    {"gzip_matrix", {"-o", "out/run.txt.gz"}, {}, "gzip_matrix"},
    {"plain_gzip_name", {"-o", "out/run.gzip"}, {}, "", 0, "writing matrix file ... done\n" + closing},
    // No tree position within the SNPs: an empty but whole gzip stream.
    {"no_position", {"-o", "out/run.gz", "-tavlo_input", "-print_matrix"},
     {{"trees.txt", "999 0;4;1 2,3 4,5 6;\n1901 0;4;1 2,3 4,5 6;\n"}}, "no_position", 0, "", false, true},
    // Positions rounding to one name share a .full_matrix; the higher one's pardo file stays.
    {"shared_names", {"-tavlo_input", "-print_matrix"},
     {{"trees.txt", "1100.2345678 0;4;1 2,3 4,5 6;\n1100.4 0;4;1 3,2 4,5 6;\n1400.98765432 0;4;1 4,2 3,5 6;\n"}},
     "shared_names"},
    {"no_individuals",
     {"-sample", "study.sample", "-exclude_samples", "exclude_all.txt", "-tavlo_input", "-print_matrix", "-detail",
      "-snp_info"},
     {}, "no_individuals", 0, "", false, true},
    // Haplotype lines without alleles: no sum is written, every position keeps 6 digits.
    {"no_haplotypes", {}, {{"ref.hap", std::string(7, '\n')}, {"trees.txt", "1175.5123456 0;0;\n1250.123456789 0;0;\n"}},
     "no_haplotypes", 0, "", false, true},
    // Genotypes one base off every panel SNP: no SNP placed, the count stays at -1.
    {"off_panel", {"-tavlo_input", "-print_matrix", "-detail", "-threads", "2"},
     {{"study.gen",
       "S rs1 1001 A G 1 0 0\nS rs2 1101 C T 1 0 0\nS rs3 1251 A C 1 0 0\nS rs4 1401 G T 1 0 0\n"}},
     "off_panel", 0, "", false, true},
    // Every optional input at once: gzip genotypes given by a repeated flag,
    // strand file and prediction (reversing SNP 1000 only when its missing
    // call is left out of the frequency), labels the other way round with and
    // without complementing, a tied call, SNP and sample exclusions, a legend
    // longer than the haplotype file.
    {"options",
     {"-g", "study.gen.gz", "-strand", "strand.txt", "-fix_strand", "-exclude_snps", "snps.txt", "absent.txt",
      "-sample", "study.sample", "-exclude_samples", "samples.txt", "-call_thresh", "0.5", "-theta", "0.3", "-Ne",
      "30001", "-int", "1000", "1900", "-buffer", "1", "-snp_info", "-tavlo_input"},
     {{"study.gen.gz", options_gen},
      {"strand.txt", "1900 -\n1250 +\n1500 -\nbad line\n9999 -\n"},
      {"snps.txt", "SNPdup\nSNP9999\n"},
      {"samples.txt", "A2\n"},
      {"ref.hap", "0 0 0 1\n0 1 0 1\n1 0 0 1\n0 0 1 0\n1 1 0 0\n0 1 1 0\n1 0 1 0\n"},
      {"ref.legend", "id position a0 a1\nrs1 1000 A G\nrs2 1100 C T\nrs3 1250 A C\nrs4 1400 G T\nrs5 1500 A G\n"
                     "rs6 1700 C T\nrs7 1900 A T\nrs8 1950 A G\n"}},
     "options", 0, "", false, true},
    // SNPs and trees on both ends of the interval; SNPs beyond the map's last row.
    {"interval_ends", {"-int", "1000", "1900", "-tavlo_input"},
     {{"map.txt", "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n900 2.0 0.000\n1300 3.0 0.001\n1500 1.0 0.0019\n"}},
     "interval_ends"},
    {"theta_zero", {"-theta", "0"}, {}, "theta_zero"},
    // A second run starts each selected position's .full_matrix afresh and
    // leaves the file of a skipped position alone.
    {"rerun", {"-print_matrix"}, {{"out/run.999.full_matrix", "kept\n"}, {"out/run.1000.full_matrix", "x\n"}},
     "rerun"},
    // A value that begins with "-" is no flag.
    {"negative_lower_bound", {"-int", "-1", "2000", "-Ne", "0", "-tavlo_input", "-pardo_gz"}, {}, "", 0,
     "lower: -1\n"},
    {"help", {"-g", "x", "-help", "-o"}, {}, "help", 0, "", true},
    {"no_flags", {}, {}, "", 1, "=\n\nERROR!!! Flag error-h\n", true},
    {"no_output_value", {"-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-g", "g", "-o"}, {}, "", 1,
     "ERROR!!! Must specify a value for flag-o\n", true},
    {"no_legend", {"-h", "a"}, {}, "", 1, "ERROR!!! Flag error-l\n", true},
    {"no_genotypes", {"-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-o", "e"}, {}, "", 1,
     "ERROR!!! Flag error-g\n", true},
    {"no_tree_file", {"-h", "a", "-l", "b", "-m", "c", "-g", "d", "-o", "e"}, {}, "", 1,
     "ERROR!!! Flag error-tree_file\n", true},
    {"no_sample_file", {"-exclude_samples", "x"}, {}, "", 1, "ERROR!!! Flag error-sample\n"},
    {"no_ne_value", {"-Ne"}, {}, "", 1, "ERROR!!! Must specify a value for flag-Ne\n"},
    {"no_upper_bound", {"-int", "5"}, {}, "", 1, "ERROR!!! Must specify a value for flag-int\n"},
    // The tree map is read before anything else; its failures end with status 1.
    {"missing_tree_map", {"-tree_file", "absent.txt.gz"}, {}, "", 1,
     "Reading tree file absent.txt.gz ... in gzip mode ... Error reading file absent.txt.gz: can't read tree map "
     "file.\nProgram terminated\n"},
    {"no_tree_in_region", {"-int", "1950", "1990"}, {}, "", 1,
     "Error reading file trees.txt: no suitable positions found in tree map file.\nProgram terminated\n"},
    // Failures after the tree map end with status 0 after the message.
    {"bad_tree", {"-tavlo_input"}, {{"trees.txt", "1000 0;4;1 2,3 4,5 6;\n1250 0;4;2 4,1 9,5 6;\n"}}, "", 0,
     "Bad tree data encountered at 1250 error with tree topology, can't find branch in read_tree.\nProgram "
     "terminated\n"},
    // Without -tavlo_input a tree is never parsed: both positions have their matrix lines.
    {"bad_tree_unparsed", {}, {{"trees.txt", "1000 0;4;1 2,3 4,5 6;\n1250 0;4;2 4,1 9,5 6;\n"}}, "", 0,
     "\n1250 ", false, false, "run"},
    // A tree outside the SNPs is skipped before it is parsed.
    {"bad_tree_skipped", {"-tavlo_input"}, {{"trees.txt", "999 0;4;1 2,3 4;\n1000 0;4;1 2,3 4,5 6;\n"}}, "", 0,
     "\nposition 999 ignored: no genotype or reference haplotype information\n", false, false, "run.aux"},
    // A matrix file that a folder's name blocks fails after all individuals ran; a gzip one is not checked.
    {"blocked_matrix", {}, {{"out/run/x", ""}}, "", 0,
     "]         3/3\n\nwriting matrix file ... Error reading file out/run: can't open file.\nProgram terminated\n"},
    {"blocked_gzip_matrix", {"-o", "out/run.gz"}, {{"out/run.gz/x", ""}}, "", 0,
     "writing matrix file in gzip mode ... done\n", false, true},
    {"gzip_tree_map", {"-tree_file", "trees.txt.gz"},
     {{"trees.txt.gz", "1250 0;4;2 4,1 3,5 6;\r\n1600 0;4;1 2,5 3,6 4;\r\n"}}, "", 0,
     "in gzip mode ... done.\n       number of tree location found in region of interest: 2\n"},
};

// The run's status and standard error, and every file written with the
// standard output as "stdout.txt".
struct Outcome { RunResult result; std::map<std::string, std::string> files; };

Outcome run_case(Case const& c, std::vector<std::string> const& more = {}) {
    TempDir dir;
    copy_small_data(dir);
    for (auto const& [name, text] : c.inputs) write_file(dir.file(name), text, text_ends_with(name, ".gz"));
    std::vector<std::string> args = c.flags;
    if (!c.alone) {  // the case's -o replaces the default one
        auto const o = std::find(args.begin(), args.end(), "-o");
        std::vector<std::string> base = small_data_args(o == args.end() ? "out/run" : *std::next(o));
        if (o != args.end()) args.erase(o, o + 2);
        args.insert(args.begin(), base.begin(), base.end());
    }
    args.insert(args.end(), more.begin(), more.end());
    Outcome r{run_ketra(args, dir.path().string()), collect_output_files(dir.path() / "out")};
    r.files["stdout.txt"] = mask_run_text(r.result.out);
    return r;
}

void check_golden(fs::path const& folder, std::map<std::string, std::string> const& actual) {
    if (char const* update = std::getenv("KETRA_UPDATE_GOLDEN"); update && std::string(update) == "1") {
        fs::remove_all(folder);
        for (auto const& [name, text] : actual) write_file((folder / name).string(), text);
        return;
    }
    ASSERT_TRUE(fs::is_directory(folder)) << folder << " missing; run with KETRA_UPDATE_GOLDEN=1";
    auto const expected = collect_output_files(folder);
    for (auto const& [name, text] : expected)
        EXPECT_EQ(actual.count(name) ? actual.at(name) : "<not written>", text) << name;
    for (auto const& f : actual) EXPECT_TRUE(expected.count(f.first)) << "unexpected file " << f.first;
}

fs::path expected_root() { return fs::path(source_dir()) / "tests/data/small/expected"; }

}  // namespace

TEST(E2e, SmallDataSetCases) {
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome const r = run_case(c);
        std::string const& out = r.files.at("stdout.txt");
        EXPECT_EQ(r.result.status, c.status);
        EXPECT_EQ(r.result.err, "");
        if (!c.golden.empty()) check_golden(expected_root() / c.golden, r.files);
        if (c.alone || c.status != 0 || text_ends_with(c.expect, "Program terminated\n")) {
            EXPECT_TRUE(text_ends_with(out, c.expect)) << out.substr(out.size() / 2);
            continue;
        }
        // A row that completes checks its golden files or a text of its own.
        ASSERT_FALSE(c.golden.empty() && c.expect.empty()) << "the row checks nothing beyond completing";
        std::string const& in = r.files.count(c.expect_in) ? r.files.at(c.expect_in) : "<not written>";
        EXPECT_NE(in.find(c.expect), std::string::npos) << c.expect_in << ": " << in.substr(in.size() / 2);
        EXPECT_TRUE(text_ends_with(out, closing)) << "the run did not complete";
        auto const again = run_case(c, c.lenient ? std::vector<std::string>{"-threads", "3"}
                                                 : std::vector<std::string>{"-threads", "3", "-strict"});
        EXPECT_EQ(without_command_line(again.files), without_command_line(r.files)) << "-threads 3, -strict";
    }
}

// The bundled example (K = 100, N = 50, 28 positions): one thread, and two
// under -strict (whose files are made under temporary names), write the same
// bytes with the same permissions, and the matrix file is kept as expected output.
TEST(E2e, BundledExample) {
    std::vector<std::string> args;
    std::istringstream words(read_file(source_dir() + "/examples/chr20-small/args.txt"));
    for (std::string w; words >> w;) args.push_back(w);
    std::map<std::string, std::string> first;
    fs::perms mode{};
    for (std::vector<std::string> more : {std::vector<std::string>{"-threads", "1"}, {"-threads", "2", "-strict"}}) {
        TempDir dir;
        copy_example_data(dir);
        more.insert(more.begin(), args.begin(), args.end());
        auto const r = run_ketra(more, dir.path().string());
        EXPECT_TRUE(text_ends_with(mask_run_text(r.out), closing));
        auto const files = without_command_line(collect_output_files(dir.path() / "out"));
        if (first.empty()) first = files, mode = fs::status(dir.file("out/run")).permissions();
        else EXPECT_TRUE(files == first && fs::status(dir.file("out/run")).permissions() == mode);
    }
    EXPECT_EQ(first.size(), 30u);  // matrix, .aux and 28 pardo files
    check_golden(expected_root() / "example_chr20_small", {{"run", first["run"]}});
}
