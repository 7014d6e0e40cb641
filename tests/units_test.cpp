// Units whose effect the end-to-end cases cannot isolate.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iomanip>
#include <limits>
#include <random>
#include <sstream>

#include "app/progress.h"
#include "data/data.h"
#include "io/number_text.h"

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
        s.genotype_probs = {{0.9, 0.1, 0.0}, {0.0, 0.05, 0.95}, {0.3, 0.3, 0.4}};
    }
    d.read_strand_data();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        snp const& s = d.snps[i];
        bool const reversed = rows[i].reversed;
        EXPECT_EQ(s.strand, reversed ? "f" : rows[i].strand) << rows[i].r << " " << rows[i].g;
        EXPECT_EQ(s.genotypes, (reversed ? std::vector<int>{2, 0, 3} : std::vector<int>{0, 2, 3}));
        EXPECT_EQ(s.genotype_probs[2], (reversed ? std::vector<double>{0.4, 0.3, 0.3} : std::vector<double>{0.3, 0.3, 0.4}));
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
