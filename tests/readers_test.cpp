// Each reader's bad input and the message it must end the run with: the
// program runs on the small data set with one file replaced, and must stop
// with status 0 after "Error reading file <name>: <cause>" and "Program
// terminated". The genotype rows run on a plain and on a gzip file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "data/data.h"
#include "io/input_check.h"
#include "support/test_support.h"
#include "trees/tree.h"

using namespace ketra_test;

namespace {

struct BadInput {
    std::map<std::string, std::string> files;  // written over the small data set
    std::string file, cause;                   // as the message names them
    std::vector<std::string> flags = {};
    bool plain = false;  // written uncompressed whatever the name
};

void expect_failures(std::vector<BadInput> const& rows) {
    for (BadInput const& row : rows) {
        TempDir dir;
        copy_small_data(dir);
        for (auto const& [name, text] : row.files)
            write_file(dir.file(name), text, !row.plain && text_ends_with(name, ".gz"));
        std::vector<std::string> args = small_data_args();
        args.insert(args.end(), row.flags.begin(), row.flags.end());
        RunResult const r = run_ketra(args, dir.path().string());
        EXPECT_EQ(r.status, 0);
        std::string const tail = "Error reading file " + row.file + ": " + row.cause + "\nProgram terminated\n";
        EXPECT_TRUE(text_ends_with(r.out, tail)) << "expected: " << tail << "got: " << r.out.substr(r.out.size() / 2);
    }
}

std::string const legend = "id position a0 a1\n";

// Node values as text (or the error), for comparing two parses.
std::string parse_outcome(std::string const& text, int leaves, bool leaf_sets) {
    tree_nodes tree;
    try {
        parse_tree(text, tree, leaves, leaf_sets);
    } catch (BadTreeDataException const& e) {
        return e.what();
    }
    std::ostringstream out;
    for (auto const& [id, node] : tree) {
        out << std::hexfloat << id << ':' << node.child_a << ',' << node.child_b << ' ' << node.time << ' '
            << node.parent_time << ' ' << node.branch_length << ';';
        if (!leaf_sets && (!node.leaves_below.empty() || !node.leaves_outside.empty())) out << "leaf sets!";
    }
    return out.str();
}

}  // namespace

TEST(Readers, ReferencePanelAndMap) {
    std::string const none = "No SNPs in the interval in haplotype file!";
    std::string const bad = "bad format detected in haplotype file on line ";
    auto panel = [](std::string const& rows, std::string const& haplotypes) {
        return std::map<std::string, std::string>{{"ref.legend", legend + rows}, {"ref.hap", haplotypes}};
    };
    expect_failures({
        {panel("", "0 1\n"), "ref.hap", none},
        {panel("rs1 800 A G\nrs2 2001 A G\n", "0 1\n0 1\n"), "ref.hap", none},  // both just outside
        // The count is checked on every line, also outside the interval.
        {panel("rs1 100 A G\nrs2 200 A G\nrs3 300 A G\n", "0 1 1\n0 1 1\n0 1\n"), "ref.hap",
         "different number of haplotypes found in haplotype file (3 and 2 on line 3."},
        {panel("rs1 1000 A G\nrs2 1100 C T\n", "0 1\n0 x\n"), "ref.hap", bad + "2."},
        {panel("rs1 1000 A G\n", "0 1.5\n"), "ref.hap", bad + "1."},
        // Codes other than 0 and 1 would index outside the emission matrix.
        {panel("rs1 1000 A G\nrs2 1100 C T\n", "0 1\n2 1\n"), "ref.hap", bad + "2."},
        {panel("rs1 1000 A G\n", "0 -1\n"), "ref.hap", bad + "1."},
        {panel("rs1 1000 A G\n", "0 99999999999999999999\n"), "ref.hap", bad + "1."},
        {{}, "absent.hap", "can't open haplotype file.", {"-h", "absent.hap"}},
        {{}, "absent.legend", "can't open legend file.", {"-l", "absent.legend"}},
        {{}, "absent.map", "can't open file.", {"-m", "absent.map"}},
    });

    // SNPs before the map's first row and after its last take that row's
    // genetic position: the run is the one whose map goes on flat to them.
    std::string const head = "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n";
    std::string const inner = "1300 3.0 0.001\n1600 1.0 0.0019\n";
    std::map<std::string, std::string> results[2];
    std::string const maps[2] = {head + inner, head + "1000 0 0.001\n" + inner + "1900 0 0.0019\n"};
    for (int m = 0; m < 2; ++m) {
        TempDir dir;
        copy_small_data(dir);
        write_file(dir.file("map.txt"), maps[m]);
        std::vector<std::string> args = small_data_args("out/run");
        args.push_back("-tavlo_input");
        ASSERT_EQ(run_ketra(args, dir.path().string()).status, 0);
        results[m] = collect_output_files(dir.path() / "out");
        results[m].erase("run.aux");
    }
    EXPECT_GT(results[0].size(), 2u);
    EXPECT_TRUE(results[0] == results[1]);
}

TEST(Readers, GenotypesPlainAndGzip) {
    std::string const snp_format = "Genotype file do not have SNP information in right format on line ";
    std::string const format = "Genotype file do not have the genotype information in right format on line ";
    std::string const ten = " 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0";
    std::vector<std::pair<std::string, std::string>> const rows = {
        {"SNP1000 rs1 1000 A G 1 0 0 7 \n", format + "1"},  // a cut-short triple
        {"SNP1000 rs1 1000 A G 1 0 0 7 0\n", format + "1"},
        {"SNP1000 rs1 1000 A G 1 0 0 0 x 0\n", format + "1"},
        {"SNP1000 rs1 1000 A G nan 0 0\n", format + "1"},
        {"SNP1000 rs1 1000 A G 1 0 0\nSNP1100 rs2 1100 C T\n", snp_format + "2"},
        {"SNP1000 rs1 1000 A\n", snp_format + "1"},
        // A line between two SNPs of the panel counts for the line numbers only.
        {"a rs1 1000 A G" + ten + "\nskipped rs 1050 A G\nb rs2 1100 C T" + ten + " 1 0 0\n",
         "Genotype file have different individuals 10 and 11 on lines 3 and 2"},
    };
    for (std::string const name : {"study.gen", "study.gen.gz"}) {
        std::vector<BadInput> cases;
        for (auto const& [text, cause] : rows) cases.push_back({{{name, text}}, name, cause, {"-g", name}});
        cases.push_back({{}, "absent" + name, " can't opened file.", {"-g", "absent" + name}});
        if (name == "study.gen.gz")  // plain text under a compressed name
            cases.push_back({{{name, rows[0].first}}, name, "not in gzip format.", {"-g", name}, true});
        SCOPED_TRACE(name);
        expect_failures(cases);
    }
}

// The rows the store keeps of each SNP: every individual, or a split run's
// slice (none for a merge), with the same doubles, calls and frequencies as
// formatted extraction of the whole line gives; odd number texts included.
TEST(Readers, GenotypeRowsHoldTheRunsSliceExactly) {
    std::vector<std::string> const tokens = {"0.1", "1e-05", ".5", "5.", "0.333333", "+0.2", "00.7", "1", "0",
                                             "0.9", "1E-1", "-0", "0.30000000000000004", "2.5e-310"};
    int const N = 40;  // enough for the rows' compact coding
    std::string text;
    std::map<double, std::vector<double>> expected;  // as the stream reads each line
    for (int s = 0; s < 4; ++s) {
        std::string line = "SNP" + std::to_string(1000 + 100 * s) + " rs" + std::to_string(s + 1) + " " +
                           std::to_string(1000 + 100 * s) + " A G";
        for (int v = 0; v < 3 * N; ++v) line += (v % 5 == 4 ? "\t" : " ") + tokens[(7 * s + 3 * v) % tokens.size()];
        std::istringstream stream(line);
        std::string skip;
        stream >> skip >> skip >> skip >> skip >> skip;
        for (double x; stream >> x;) expected[1000 + 100 * s].push_back(x);
        text += line + (s == 1 ? " \n" : "\n");
    }
    struct Row { std::vector<std::string> flags; int chunk_i, chunk_n, first, last; };
    std::vector<Row> const rows = {
        {{}, 0, 0, 0, N},           {{"-chunk"}, 1, 3, 0, 13},    {{"-chunk"}, 3, 3, 26, 40},
        {{"-chunk"}, 1, 50, 0, 0},  {{"-merge"}, 0, 0, 0, 0},     {{"-chunk", "-snp_info"}, 2, 3, 0, N},
        {{"-chunk", "-exclude_samples"}, 2, 3, 0, N},
    };
    TempDir dir;
    for (std::string const name : {"study.gen", "study.gen.gz"}) {
        write_file(dir.file(name), text, name == "study.gen.gz");
        for (Row const& row : rows) {
            SCOPED_TRACE(name + " " + (row.flags.empty() ? "" : row.flags.back()) + " " + std::to_string(row.chunk_i));
            data d;
            d.parameters.genotype_file = dir.file(name);
            d.parameters.lower = 0, d.parameters.upper = 1e12, d.parameters.call_thresh = 0.9;
            d.parameters.flags_seen.insert(row.flags.begin(), row.flags.end());
            d.parameters.chunk_index = row.chunk_i, d.parameters.chunk_count = row.chunk_n;
            for (auto const& entry : expected) d.snps[entry.first].rs_id = "rs";
            d.read_genotype_data();
            ASSERT_EQ(d.n_individuals, N);
            EXPECT_EQ(d.first_held, row.first);
            for (auto const& [position, values] : expected) {
                snp const& s = d.snps[position];
                ASSERT_EQ(s.genotypes.size(), static_cast<std::size_t>(row.last - row.first));
                ASSERT_EQ(s.genotype_probs.size(), s.genotypes.size());
                double sum = 0, called = 0;
                for (int n = 0; n < N; ++n) {
                    double const* p = &values[3 * n];
                    int best = p[1] > p[0] ? 1 : 0;
                    if (p[2] > p[best]) best = 2;
                    int const call = p[best] >= 0.9 ? best : 3;
                    if (call != 3) sum += call, called += 1;
                    if (n < row.first || n >= row.last) continue;
                    EXPECT_EQ(std::memcmp(s.genotype_probs[n - row.first], p, 3 * sizeof(double)), 0) << n;
                    EXPECT_EQ(s.genotypes[n - row.first], call) << n;
                }
                double const frequency = sum / (2 * called);  // over everybody, whatever is held
                EXPECT_TRUE(std::memcmp(&s.genotype_frequency, &frequency, sizeof frequency) == 0 ||
                            (std::isnan(frequency) && std::isnan(s.genotype_frequency)));
            }
        }
    }
}

TEST(Readers, SamplesAndStrand) {
    std::vector<std::string> const samples = {"-sample", "study.sample", "-exclude_samples", "exclude_all.txt"};
    auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), samples.begin(), samples.end());
        return more;
    };
    expect_failures({
        {{{"study.sample", "ID_1 ID_2 missing\n0 0 0\nS1 A1 0\nS2 A2 0\nS3 A3 0\nS4 A4 0\n"}}, "study.sample",
         "sample file contains wrong number of individuals.", samples},
        {{}, "absent.sample", "can't open sample file.", with({"-sample", "absent.sample"})},
        // The exclusion file's open error gives the sample file's text.
        {{}, "absent.txt", "can't open sample file.", with({"-exclude_samples", "absent.txt"})},
        {{}, "absent.strand", "can't open strand file", {"-strand", "absent.strand"}},
    });
}

// The tree text of one position: every way it can be malformed, and the
// message naming the position with six significant digits. The run parses
// without leaf sets; the full parse must give the same nodes or error.
TEST(Readers, TreeText) {
    std::string const prefix = "Bad tree data encountered at ";
    auto at = [&](std::string const& m) { return prefix + "1500 " + m; };
    std::string const semicolon = at("expected ; not found."), separator = at("expected ; or , not found.");
    std::string const count = at("tree does not have the required number of leaves.");
    std::string const topology = at("error with tree topology, can't find branch in read_tree.");
    std::string const leaf = at("leaf not found."), mrca = at("error with one of the trees: does not reach the mrca.");
    struct Row { std::string text; int leaves; std::string message; };  // "" for a tree of 2 leaves - 1 nodes
    std::vector<Row> const rows = {
        {"1500 0;4;1 2,3 4,5 6;", 4, ""},
        {"  1500\t0; 4;\t1   2, 3 4,  5 6;  trailing ; garbage ,\r", 4, ""},
        {"5 0;1;", 1, ""},
        {"1500 0 ;4;1 2,3 4,5 6;", 4, semicolon},
        {"1500 0,4;1 2,3 4,5 6;", 4, semicolon},
        {"", 4, prefix + "0 expected ; not found."},
        {"1500 0;4;1 2,3 4,5 6;", 5, count},
        {"1500 0;x;1 2;", 4, count},
        {"1500 0;4;1 2 ,3 4,5 6;", 4, separator},
        {"1500 0;4;1 2,3 4,5 6", 4, separator},
        {"1500 0;4;1 2,x 4;", 4, separator},
        {"1500 0;4;1 5,3 4,5 6;", 4, topology},  // node 5 not built yet
        {"1500 0;4;0 2,3 4,5 6;", 4, topology},
        {"1500 0;4;1 1,3 4,5 6;", 4, leaf},  // self-merge
        {"1500 0;4;1 2,5 1;", 4, leaf},      // node 5 already holds leaf 1
        {"1500 0;4;1 2,3 4;", 4, mrca},      // n - 2 merges
        {"1500 0;0;", 0, mrca},          // no lineage at all
        {"1500 0;2;1 2,1 2;", 2, mrca},  // re-merging merged-away nodes leaves a second lineage
        {"1234567 0;3;1 2;", 3, prefix + "1.23457e+06 error with one of the trees: does not reach the mrca."},
    };
    for (Row const& row : rows) {
        std::string const lean = parse_outcome(row.text, row.leaves, false);
        EXPECT_EQ(parse_outcome(row.text, row.leaves, true), lean) << row.text;
        if (row.message.empty()) EXPECT_EQ(std::count(lean.begin(), lean.end(), ';'), 2 * row.leaves - 1) << row.text;
        else EXPECT_EQ(lean, row.message) << row.text;
    }
    // Reused and unknown nodes at later stages: the same error from both parses.
    for (int leaves : {3, 4})
        for (char const* text : {"1500 0;4;1 2,3 4,5 6,7 7;", "1500 0;4;1 2,1 3,5 6;", "1500 0;4;1 2,1 3,6 4;",
                                 "1500 0;4;1 2,3 5,4 6;", "1500 0;4;1 2,3 4,5 5;", "1500 0;3;1 2,4 3,5 1;",
                                 "1500 0;3;1 2,3 4,1 2;", "1500 0;3;2 1,4 3;x", "1500 0;5;1 2,3 6,4 5,7 8;"})
            EXPECT_EQ(parse_outcome(text, leaves, false), parse_outcome(text, leaves, true)) << text << " " << leaves;
}

// The fields -strict asks of one line of each input: counts at and around
// each limit, numbers that are not finite or not whole tokens.
TEST(Readers, StrictLineLayouts) {
    struct Case { line_layout const* layout; std::string line, fault; };
    std::string const genotype = "; a genotype line has 5 plus 3 per individual.";
    std::vector<Case> const cases = {
        {&layouts::genotypes, "s r 100 A G 1 0 0", ""},
        {&layouts::genotypes, "s r 100 A G 1 0 0 0.5 0.5 0", ""},
        {&layouts::genotypes, "s r 100 A G", "line 7 has 5 fields" + genotype},
        {&layouts::genotypes, "s r 100 A G 1 0", "line 7 has 7 fields" + genotype},
        {&layouts::genotypes, "s r 100 A G 1 0 0 1", "line 7 has 9 fields" + genotype},
        {&layouts::genotypes, "s r 1e5x A G 1 0 0", "line 7, field 3 is '1e5x', not a number" + genotype},
        {&layouts::genotypes, "s r inf A G 1 0 0", "line 7, field 3 is 'inf', not a number" + genotype},
        {&layouts::genetic_map, "100\t0.5  1e-3", ""},
        {&layouts::genetic_map, "100 0.5 1e-3 7", "line 7 has 4 fields; a map line has 3 numbers: position, rate and "
                                                  "genetic position."},
        {&layouts::genetic_map, "100 nan 1", "line 7, field 2 is 'nan', not a number; a map line has 3 numbers: "
                                             "position, rate and genetic position."},
        {&layouts::genetic_map, "100 0.5 x", "line 7, field 3 is 'x', not a number; a map line has 3 numbers: "
                                             "position, rate and genetic position."},
        {&layouts::genetic_map, "", "line 7 is blank; a map line has 3 numbers: position, rate and genetic position."},
        {&layouts::strand, "100 + extra", ""},
        {&layouts::strand, "100", "line 7 has 1 field; a strand line has 2 fields or more: position and strand."},
        {&layouts::legend, "rs1 100 A", "line 7 has 3 fields; a legend line has 4 fields or more: id, position and "
                                        "two alleles."},
        {&layouts::sample, "id1 id2 0", ""},
        {&layouts::tree_map, "1500 0;4;1 2,3 4,5 6;", ""},
    };
    for (auto const& c : cases) EXPECT_EQ(line_fault(c.line, 7, *c.layout), c.fault) << c.line;
}
