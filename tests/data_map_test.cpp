// Genetic map reading and rescaling, switch rates and the emission matrix.
#include <cmath>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// Ne 2500 makes 4 Ne / 100 = 100: cM 0.1 becomes 10.
std::string const kMap =
    "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n"
    "1000 1.5 0.0\n"
    "2000 1.5 0.1\n"
    "3000 0 0.1\n"
    "6000 2.0 0.4\n";

struct MapFixture : ::testing::Test {
    TempDir dir;
    data read(std::string const& map_text, std::vector<std::string> args = {"-Ne", "2500"}) {
        write_file(dir.file("map.txt"), map_text);
        data d = empty_store(parse_parameters(dir, args));
        console = quietly([&] { d.read_genetic_map(); });
        return d;
    }
    std::string console;
};

}  // namespace

TEST_F(MapFixture, ScalesByNeAndRescalesRatesWithThePowerLaw) {
    data d = read(kMap);
    EXPECT_EQ(d.map_positions, (std::vector<double>{1000, 2000, 3000, 6000}));
    // Local rate 0.01 per base becomes exp((ln 0.01 + 0.0380763) / (1 - 0.207447 / 2.302585)).
    ASSERT_EQ(d.map_genetic.size(), 4u);
    EXPECT_DOUBLE_EQ(d.map_genetic[0], 0.0);
    EXPECT_NEAR(d.map_genetic[1], 6.609165022872839, 1e-12);
    EXPECT_NEAR(d.map_genetic[2], 6.609165022872839, 1e-12);  // flat stays flat
    EXPECT_NEAR(d.map_genetic[3], 26.436660091491355, 1e-12);
    EXPECT_EQ(console,
              "reading genetic map file ... done.\n"
              "                                      number of rates read: 4\n"
              "\n"
              "rescaling genetic map ... done\n"
              "\n");
}

TEST_F(MapFixture, DefaultNeAndSingleRowAndFirstValueKept) {
    data d = read("h\n500 0 0.25\n", {});
    ASSERT_EQ(d.map_genetic.size(), 1u);
    EXPECT_DOUBLE_EQ(d.map_genetic[0], 4.0 * 11418 * 0.25 / 100.0);
}

TEST_F(MapFixture, MissingFileIsAnError) {
    data d = empty_store(parse_parameters(dir, {"-m", dir.file("nope.txt")}));
    EXPECT_EQ(error_of([&] { d.read_genetic_map(); }),
              "Error reading file " + dir.file("nope.txt") + ": can't open file.");
}

TEST_F(MapFixture, UnparsableFieldsAreNotDiagnosed) {
    // Only a hard stream error is reported; a word in column 3 reads as nothing.
    data d = read("h\n1000 0 0\n2000 x y\n");
    EXPECT_EQ(d.map_positions.size(), 2u);
}

TEST_F(MapFixture, SnpGeneticPositionsAreInterpolatedWithoutExtrapolation) {
    write_file(dir.file("map.txt"), kMap);
    write_file(dir.file("ref.legend"),
               "id pos a0 a1\n"
               "rs0 500 A G\nrs1 1500 A G\nrs2 2500 A G\nrs3 4000 A G\nrs4 6000 A G\nrs5 9000 A G\n");
    write_file(dir.file("ref.hap"), "0 1\n0 1\n0 1\n0 1\n0 1\n0 1\n");
    data d = empty_store(parse_parameters(dir, {"-Ne", "2500"}));
    quietly([&] {
        d.read_genetic_map();
        d.read_haplotype_data();
    });
    double const g1 = 6.609165022872839, g3 = 26.436660091491355;
    EXPECT_DOUBLE_EQ(d.snps.at(500).genetic_position, 0.0);  // before the map: first value
    EXPECT_NEAR(d.snps.at(1500).genetic_position, g1 / 2, 1e-12);
    EXPECT_NEAR(d.snps.at(2500).genetic_position, g1, 1e-12);
    EXPECT_NEAR(d.snps.at(4000).genetic_position, g1 + (g3 - g1) / 3, 1e-12);
    EXPECT_NEAR(d.snps.at(6000).genetic_position, g3, 1e-12);  // on the last row
    EXPECT_NEAR(d.snps.at(9000).genetic_position, g3, 1e-12);  // after the map: last value
}

TEST(SwitchRates, StayAndJumpFromGeneticDistance) {
    data d;
    d.n_haplotypes = 4;
    d.snps[100].genetic_position = 1.0;
    d.snps[300].genetic_position = 3.0;
    d.snps[400].genetic_position = 3.0;
    std::string const out = quietly([&] { d.set_switch_rates(); });
    EXPECT_EQ(out, "setting switch rates...done\n");
    EXPECT_TRUE(d.snps[100].switch_rates.empty());
    double const jump = (1 - std::exp(-2.0 / 4)) / 4;
    ASSERT_EQ(d.snps[300].switch_rates.size(), 2u);
    EXPECT_NEAR(d.snps[300].switch_rates[1], jump, 1e-15);
    EXPECT_NEAR(d.snps[300].switch_rates[0], 1 - 3 * jump, 1e-15);
    EXPECT_NEAR(d.snps[300].rate_per_base, 2.0 / 200, 1e-15);
    // No genetic distance: always stay.
    EXPECT_DOUBLE_EQ(d.snps[400].switch_rates[0], 1.0);
    EXPECT_DOUBLE_EQ(d.snps[400].switch_rates[1], 0.0);
    EXPECT_DOUBLE_EQ(d.snps[400].rate_per_base, 0.0);
}

TEST(SwitchRates, SingleSnpGetsNone) {
    data d;
    d.n_haplotypes = 4;
    d.snps[100].genetic_position = 1.0;
    quietly([&] { d.set_switch_rates(); });
    EXPECT_TRUE(d.snps[100].switch_rates.empty());
}

namespace {

void expect_matrix(data const& d, double e) {
    double const s = 1 - e;
    std::vector<std::vector<double>> const expected = {
        {s * s, 2 * s * e, e * e, 1.0}, {s * e, s * s + e * e, s * e, 1.0}, {e * e, 2 * s * e, s * s, 1.0}};
    ASSERT_EQ(d.mutation_matrix.size(), 3u);
    for (int a = 0; a < 3; ++a)
        for (int g = 0; g < 4; ++g) EXPECT_NEAR(d.mutation_matrix[a][g], expected[a][g], 1e-15) << a << "," << g;
}

}  // namespace

TEST(MutationMatrix, DefaultThetaIsOneOverHarmonicSum) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {}));
    d.n_haplotypes = 4;
    d.mutation_matrix.assign(3, std::vector<double>(4, 0.0));
    EXPECT_EQ(quietly([&] { d.set_mutation_matrix(d.n_haplotypes); }),
              "setting mutation rate and mutation matrices...done\n");
    EXPECT_NEAR(d.theta, 6.0 / 11.0, 1e-15);
    expect_matrix(d, 0.5 * (6.0 / 11.0) / (6.0 / 11.0 + 4));
}

TEST(MutationMatrix, GivenThetaIncludingZero) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {"-theta", "0"}));
    d.n_haplotypes = 4;
    d.mutation_matrix.assign(3, std::vector<double>(4, 0.0));
    quietly([&] { d.set_mutation_matrix(d.n_haplotypes); });
    EXPECT_EQ(d.theta, 0.0);
    expect_matrix(d, 0.0);  // all mass on g = a

    data d2 = empty_store(parse_parameters(dir, {"-theta", "0.2"}));
    d2.n_haplotypes = 10;
    d2.mutation_matrix.assign(3, std::vector<double>(4, 0.0));
    quietly([&] { d2.set_mutation_matrix(d2.n_haplotypes); });
    EXPECT_EQ(d2.theta, 0.2);
    expect_matrix(d2, 0.5 * 0.2 / 10.2);
}

TEST(MutationMatrix, SingleHaplotypeGivesInfiniteTheta) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {}));
    d.n_haplotypes = 1;
    quietly([&] { d.set_mutation_matrix(d.n_haplotypes); });
    EXPECT_TRUE(std::isinf(d.theta));
    EXPECT_TRUE(std::isnan(d.mutation_matrix[0][0]));
    EXPECT_EQ(d.mutation_matrix[0][3], 1.0);
}
