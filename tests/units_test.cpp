// Units whose effect the end-to-end cases cannot isolate.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <limits>
#include <random>
#include <sstream>

#include "app/progress.h"
#include "data/data.h"
#include "io/field_reader.h"
#include "io/number_text.h"
#include "prep/genetic_map.h"
#include "run/hmm.h"
#include "prep/prep_error.h"
#include "prep/vcf_input.h"
#include "support/test_support.h"

// Reversed coding is predicted when the frequencies are more than 0.2 apart
// and sum to within 0.2 of one; both comparisons are strict.
TEST(StrandPrediction, ReversesOnlyClearlyMismatchedFrequencies) {
    struct Row { double r, g; std::string strand; bool reversed; };
    std::vector<Row> const rows = {
        {0.1, 0.85, "*", true},   {0.5, 0.5, "*", false},  {0.1, 0.5, "*", false},
        {0.1, 0.3, "*", false},   {0.45, 0.65, "*", false},  // |r - g| = 0.2 exactly
        {0.1, 0.85, "+", false},  // a known strand is left alone
        {0.75, 0.05, "*", false},  // |1 - r - g| = 0.2 exactly
    };
    data d;
    d.parameters.flags_seen = {"-fix_strand"};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        snp& s = d.snps[i];
        s.hap_frequency = rows[i].r;
        s.genotype_frequency = rows[i].g;
        s.strand = rows[i].strand;
        s.data_type = 2;
        s.genotypes = {0, 2, 3};
        double const probs[] = {0.9, 0.1, 0.0, 0.0, 0.05, 0.95, 0.3, 0.3, 0.4};
        s.genotype_probs.assign(probs, 3);
    }
    d.read_strand_data();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        snp const& s = d.snps[i];
        bool const reversed = rows[i].reversed;
        EXPECT_EQ(s.strand, reversed ? "f" : rows[i].strand) << rows[i].r << " " << rows[i].g;
        EXPECT_TRUE(s.genotypes == (reversed ? genotype_calls{2, 0, 3} : genotype_calls{0, 2, 3}));
        EXPECT_EQ(std::vector<double>(s.genotype_probs[2], s.genotype_probs[2] + 3),
                  (reversed ? std::vector<double>{0.4, 0.3, 0.3} : std::vector<double>{0.3, 0.3, 0.4}));
        EXPECT_NEAR(s.genotype_frequency, reversed ? 1 - rows[i].g : rows[i].g, 1e-15);
    }
}

// The fast number text must equal what an ostream writes at the same precision:
// special values, probabilities over many magnitudes and next to one, raw bit
// patterns, positions, and values on and beside the rounding boundaries.
TEST(NumberText, MatchesStreamOutput) {
    std::vector<double> values = {-0.0, 9.999995e-5, 999999.5, 99999.95, 5e-324, 1.7976931348623157e308,
                                  std::numeric_limits<double>::infinity(), std::nan("")};
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 20000; ++i) {
        std::uint64_t const bits = rng();
        double raw;
        std::memcpy(&raw, &bits, sizeof raw);
        values.insert(values.end(), {unit(rng) * std::pow(10.0, -static_cast<int>(unit(rng) * 40)), raw,
                                     std::floor(unit(rng) * 3e8) + (i % 4) * 0.25, 1 - unit(rng) * 1e-5,
                                     1 + unit(rng) * 1e-5});
    }
    for (int k = -290; k <= 290; k += 7)
        for (double digits : {1.5, 9.5, 99.5, 999999.5, 9999995.0, 10.0}) {
            double const v = digits * std::pow(10.0, k);
            values.insert(values.end(), {v, std::nextafter(v, 0.0), std::nextafter(v, 1e308)});
        }
    for (double v : values)
        for (int precision : {1, 3, 6, 9, 10}) {
            std::ostringstream os;
            os << std::setprecision(precision) << v;
            std::string fast;
            append_number(fast, v, precision);
            ASSERT_EQ(fast, os.str()) << v;
        }
}

TEST(ProgressBar, FillsByTruncatedFractionAndClamps) {
    std::vector<std::tuple<unsigned long, double, std::string>> const rows = {
        {10, 0.25, "[**        ]"}, {10, 1.7, "[**********]"}, {10, -0.5, "[          ]"},
        {0, 0.5, "[]"},             {4, std::nan(""), "[    ]"}, {3, 0.999, "[** ]"},
    };
    for (auto const& [width, fraction, bar] : rows) EXPECT_EQ(get_progress_bar(width, fraction), bar) << fraction;
}

// Switches that change no output file on their own must still be recorded.
TEST(Parameters, SwitchesAndRepeatedFlags) {
    std::vector<std::string> args = {"ketra", "-h", "a", "-l", "b", "-m", "c", "-tree_file", "t", "-g", "g1", "-o",
                                     "run", "-detail", "-print_matrix", "-buffer", "250.7", "-g", "g2"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    LSMatrixParameters p;
    p.process_parameters(static_cast<int>(argv.size()), argv.data());
    EXPECT_TRUE(p.detail && p.print_matrix && !p.tavlo_input);
    EXPECT_EQ(p.buffer, 250);
    EXPECT_EQ(p.genotype_file.string(), "g2");
}

// The genotype lines' field reader reads what formatted extraction reads, with
// the same end-of-line and failure states: plain numbers on the direct path,
// everything else (partial parses, overflow, hex, words) through the stream.
TEST(FieldReader, ReadsWhatTheStreamReads) {
    struct Row { std::string line; std::string kinds; };  // 's' string, 'd' double per read
    std::vector<Row> const rows = {
        {"SNP1 rs1 1000 A G 0 1 0.5", "sssssddd"},  {"a b 12.5", "ssd"},            {"  0.25\t-3  ", "ddd"},
        {"1e-05 1E5 -0 +7 007", "ddddd"},          {"1.5abc 2", "ddd"},             {"1e 2", "dd"},
        {"1e+ 3", "dd"},                            {"1e400 5", "dd"},               {"-1e400", "d"},
        {"1e-400 4.9e-324 2.2250738585072014e-308", "ddd"},                         {"0x1p3 4", "ddd"},
        {"nan 1", "dd"},                            {"inf", "d"},                    {".5 5. .e1", "ddd"},
        {"--1", "d"},                               {"1,5 2", "ddd"},                {"9007199254740993", "d"},
        {"0.1000000000000000055511151231257827 12345678901234567890123456789", "dd"},
        {"", "sd"},                                 {"x", "dd"},                     {"1 2 x", "dddd"},
        {"1e5x 2", "dsd"},                          {"- + 7", "ddd"},
    };
    for (Row const& row : rows) {
        field_reader fast(row.line);
        std::istringstream stream(row.line);
        for (std::size_t k = 0; k < row.kinds.size(); ++k) {
            SCOPED_TRACE("\"" + row.line + "\" read " + std::to_string(k));
            bool ok_fast = false, ok_stream = false;
            if (row.kinds[k] == 'd') {
                double a = 99, b = 99;
                ok_fast = fast.read(a);
                ok_stream = static_cast<bool>(stream >> b);
                EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << std::hexfloat << a << " " << b;
            } else {
                std::string a = "?", b = "?";
                ok_fast = fast.read(a);
                ok_stream = static_cast<bool>(stream >> b);
                EXPECT_EQ(a, b);
            }
            EXPECT_EQ(ok_fast, ok_stream);
            EXPECT_EQ(fast.eof(), stream.eof());
            EXPECT_EQ(fast.fail(), stream.fail());
        }
    }
    // Plain numbers take the direct path; anything else is left to the stream.
    std::vector<std::pair<std::string, bool>> const plain = {
        {"0", true},    {"1", true},      {"0.6", true},  {"-0.25", true}, {"+3", true},  {"1e-05", true},
        {"12.5E+2", true}, {".5", false}, {"5.", false},  {"1e", false},   {"nan", false}, {"1e400", false},
        {"1e-400", false}, {"4.9e-324", false}, {"0x1", false}, {"1.5a", false}, {"", false}, {"-", false},
    };
    for (auto const& [token, accepted] : plain) {
        double v = 0;
        EXPECT_EQ(plain_decimal_value(token.data(), token.data() + token.size(), v), accepted) << token;
    }
}

// The rows' compact coding: one- and two-byte indices of distinct triples, or
// plain triples when there are too many or too few individuals; every value
// reads back bit for bit, also after reversing some or all individuals and
// dropping some.
TEST(ProbabilityRows, CodingReadsBackExactly) {
    struct Row { std::size_t count, distinct; std::size_t bytes; };
    std::vector<Row> const rows = {
        {1000, 3, 500 + 3 * 24},  {1001, 16, 501 + 16 * 24}, {1001, 17, 1001 + 17 * 24}, {1000, 300, 2000 + 300 * 24},
        {70000, 66000, 70000 * 24}, {5, 5, 5 * 24},         {0, 0, 0},                    {3000, 1, 1500 + 24},
    };
    std::mt19937 rng(7);
    for (Row const& row : rows) {
        SCOPED_TRACE(std::to_string(row.count) + " individuals, " + std::to_string(row.distinct) + " triples");
        std::vector<double> triples;
        for (std::size_t i = 0; i < row.count; ++i) {
            std::size_t const t = i < row.distinct ? i : rng() % row.distinct;
            // Triples that differ only in a zero's sign or in the last bit stay apart.
            double const b = t % 4 < 2 ? 0.5 : std::nextafter(0.5, 1.0);
            triples.insert(triples.end(), {t % 2 ? -0.0 : 0.0, b, static_cast<double>(t / 4)});
        }
        auto expect_rows = [&](probability_triples const& got, std::vector<double> const& want) {
            ASSERT_EQ(got.size(), want.size() / 3);
            for (std::size_t i = 0; i < got.size(); ++i)
                ASSERT_EQ(std::memcmp(got[i], &want[3 * i], 3 * sizeof(double)), 0) << i;
        };
        probability_triples p;
        p.assign(triples.data(), row.count);
        EXPECT_EQ(p.bytes(), row.bytes);
        expect_rows(p, triples);
        for (std::size_t reversed : {row.count, row.count / 3, row.count > 0 ? row.count - 1 : 0}) {
            probability_triples q = p;
            std::vector<double> want = triples;
            for (std::size_t i = 0; i < reversed; ++i) std::swap(want[3 * i], want[3 * i + 2]);
            q.reverse_first(reversed);
            expect_rows(q, want);
            std::vector<double> kept;
            for (std::size_t i = 0; i < row.count; ++i)
                if (i % 3 != 1) kept.insert(kept.end(), &want[3 * i], &want[3 * i + 3]);
            q.keep_if([](std::size_t i) { return i % 3 != 1; });
            expect_rows(q, kept);
        }
    }
}


// ketra-prep's map: the rows from the last one at or before the region's start
// to the first one at or after its end, from either layout, plain or gzip, and
// the rates between them; a map it cannot use is refused with its line.
TEST(PrepMap, KeepsTheRowsAroundTheRegionOrSaysWhy) {
    struct Case {
        char const* name;
        std::string text;
        bool gzip;
        std::string want;  // the .map text, or the message
    };
    std::string const head = "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n";
    Case const cases[] = {
        {"pos chr cM, other chromosomes skipped, gzip, CRLF",
         "pos chr cM\r\n500 chr20 0.1\r\n900 20 0.2\r\n950 19 0.25\r\n1500 chr20 0.50\r\n2500 20 0.7\r\n3000 20 0.9\r\n",
         true, head + "900 500.000000 0.2\n1500 200.000000 0.50\n2500 0.000000 0.7\n"},
        {"the other layout, rows at both ends of the region",
         "Position(bp) COMBINED_rate(cM/Mb) Genetic_Map(cM)\n500 0 0\n1000 0 1e-1\n\n2000 0 0.3\n2500 0 0.4\n", false,
         head + "1000 200.000000 1e-1\n2000 0.000000 0.3\n"},
        {"a map that ends inside the region", "pos chr cM\n500 20 0.1\n1500 20 0.2\n", false,
         head + "500 100.000000 0.1\n1500 0.000000 0.2\n"},
        {"unsorted", "pos chr cM\n500 20 0.1\n1500 20 0.05\n900 20 0.2\n", false,
         "map: line 4: positions are not ascending; sort the map by position"},
        {"a bad row", "pos chr cM\n500 20 0.1\n1500 20 x\n", false, "map: line 3 is not a map row"},
        {"a row of another chromosome is not read", "pos chr cM\n500 20 0.1\n600 19 x\n2500 20 0.2\n", false,
         head + "500 50.000000 0.1\n2500 0.000000 0.2\n"},
        {"no rows of the chromosome", "pos chr cM\n500 19 0.1\n2500 19 0.2\n", false,
         "map: fewer than two map rows for chromosome 20 around the region"},
        {"another file", "id position a0 a1\nrs1 1000 A G\n", false,
         "map: the header is neither 'pos chr cM' nor 'position COMBINED_rate(cM/Mb) Genetic_Map(cM)'"},
    };
    ketra_test::TempDir dir;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        std::string const path = dir.file("map");
        ketra_test::write_file(path, c.text, c.gzip);
        std::string got;
        try {
            got = map_file_text(read_map_rows(path, "20", 1000, 2000));
        } catch (prep_error const& e) {
            got = "map" + e.message.substr(path.size());  // the message starts with the file
        }
        EXPECT_EQ(got, c.want);
    }
}

// -region: CHROM:FROM-TO with commas in the numbers, both ends included.
TEST(PrepRegion, ReadsChromFromToOrSaysWhy) {
    struct Case {
        std::string text, want;  // CHROM:FROM-TO as the readers get it, or the message
    };
    Case const cases[] = {
        {"20:1,000-2,000", "20:1000-2000"},
        {"chr1:5-5", "chr1:5-5"},
        {"HLA:A:7-9", "HLA:A:7-9"},  // the last colon ends the chromosome
        {"20:2000-1000", "-region 20:2000-1000: ends before it starts"},
        {"20:1-2-3", "-region 20:1-2-3: not CHROM:FROM-TO"},
        {"20:x-y", "-region 20:x-y: not CHROM:FROM-TO"},
        {"20:1000", "-region 20:1000: not CHROM:FROM-TO"},
        {"20-1000-2000", "-region 20-1000-2000: not CHROM:FROM-TO"},
    };
    for (auto const& c : cases) {
        std::string got;
        try {
            got = parse_region(c.text).text;
        } catch (prep_error const& e) {
            got = e.message;
        }
        EXPECT_EQ(got, c.want) << c.text;
    }
}

// Library functions that no stage of a run calls: the memory estimate, the
// line count and the details file.
TEST(LibraryFunctions, MemoryEstimateLineCountAndDetailsFile) {
    data d;
    for (int i = 0; i < 1000; ++i) d.snps[1000.0 + i] = snp();
    d.n_haplotypes = 100;
    d.n_individuals = 50;
    HMM h;
    static_cast<data&>(h) = d;
    std::ostringstream captured;
    std::streambuf* const console = std::cout.rdbuf(captured.rdbuf());
    mem_est(d, h);
    std::cout.rdbuf(console);
    EXPECT_EQ(captured.str(),
              "  genetic and physical map: 0.032Mb\n            haplotype data: 0.4Mb\n"
              "            haplotype data: 0.4Mb\n          called genotypes: 0.2Mb\n"
              "       threshold genotypes: 1.2Mb\nforward and backward paths: 80Mb\n\n"
              "Estimated RAM required is   82.232Mb\n\n");

    ketra_test::TempDir dir;
    ketra_test::write_file(dir.file("three.txt"), "a\n\nc");
    EXPECT_EQ(countLines(dir.file("three.txt")), 3);
    EXPECT_EQ(countLines(dir.file("absent.txt")), 0);

    h.output_details(dir.file("run.details"), {{1.0, 0.25}, {1e-7, 2.0 / 3.0}});
    EXPECT_EQ(ketra_test::read_file(dir.file("run.details")), "1 0.25 \n1e-07 0.666667 \n");
    try {
        h.output_details(dir.file("absent/run.details"), {});
        ADD_FAILURE() << "a details file in a missing folder was written";
    } catch (badfilename const& e) {
        EXPECT_EQ(e.what(), "Error reading file " + dir.file("absent/run.details") + ": can't open file.");
    }
}
