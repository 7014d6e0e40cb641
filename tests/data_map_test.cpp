// Genetic map reading and rescaling, switch rates and the emission matrix.
#include <cmath>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// Ne 2500 makes 4 Ne / 100 = 100: cM 0.1 becomes 10. A local rate of 0.01 per
// base becomes exp((ln 0.01 + 0.0380763) / (1 - 0.207447 / 2.302585)).
std::string const kMap =
    "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n1000 1.5 0.0\n2000 1.5 0.1\n3000 0 0.1\n6000 2.0 0.4\n";
double const g1 = 6.609165022872839, g3 = 26.436660091491355;

}  // namespace

TEST(GeneticMap, ScalesByNeRescalesAndInterpolatesWithoutExtrapolation) {
    TempDir dir;
    write_file(dir.file("map.txt"), kMap);
    write_file(dir.file("ref.legend"), "id pos a0 a1\nrs0 500 A G\nrs1 1500 A G\nrs2 2500 A G\nrs3 4000 A G\n"
                                       "rs4 6000 A G\nrs5 9000 A G\n");
    write_file(dir.file("ref.hap"), "0 1\n0 1\n0 1\n0 1\n0 1\n0 1\n");
    data d = store_for(dir, {"-Ne", "2500"});
    EXPECT_EQ(quietly([&] { d.read_genetic_map(); }),
              "reading genetic map file ... done.\n                                      number of rates read: 4\n"
              "\nrescaling genetic map ... done\n\n");
    EXPECT_EQ(d.map_positions, (std::vector<double>{1000, 2000, 3000, 6000}));
    ASSERT_EQ(d.map_genetic.size(), 4u);
    std::vector<double> const rescaled = {0.0, g1, g1, g3};  // flat stays flat
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(d.map_genetic[i], rescaled[i], 1e-12) << i;
    quietly([&] { d.read_haplotype_data(); });
    // Before the map: first value; after it: last value.
    std::vector<std::pair<double, double>> const at = {
        {500, 0.0}, {1500, g1 / 2}, {2500, g1}, {4000, g1 + (g3 - g1) / 3}, {6000, g3}, {9000, g3}};
    for (auto const& [pos, g] : at) EXPECT_NEAR(d.snps.at(pos).genetic_position, g, 1e-12) << pos;
}

TEST(GeneticMap, DefaultNeOddRowsAndMissingFile) {
    TempDir dir;
    write_file(dir.file("map.txt"), "h\n500 0 0.25\n");
    data d = store_for(dir);
    quietly([&] { d.read_genetic_map(); });
    ASSERT_EQ(d.map_genetic.size(), 1u);
    EXPECT_DOUBLE_EQ(d.map_genetic[0], 4.0 * 11418 * 0.25 / 100.0);  // a single row keeps its value
    // Only a hard stream error is reported; a word in column 3 reads as nothing.
    write_file(dir.file("map.txt"), "h\n1000 0 0\n2000 x y\n");
    data odd = store_for(dir);
    quietly([&] { odd.read_genetic_map(); });
    EXPECT_EQ(odd.map_positions.size(), 2u);
    data none = store_for(dir, {"-m", dir.file("nope.txt")});
    EXPECT_EQ(error_of([&] { none.read_genetic_map(); }),
              "Error reading file " + dir.file("nope.txt") + ": can't open file.");
}

TEST(SwitchRates, StayAndJumpFromGeneticDistance) {
    data d;
    d.n_haplotypes = 4;
    d.snps[100].genetic_position = 1.0;
    EXPECT_EQ(quietly([&] { d.set_switch_rates(); }), "setting switch rates...done\n");
    EXPECT_TRUE(d.snps[100].switch_rates.empty());  // a table of one SNP: nothing set
    d.snps[300].genetic_position = d.snps[400].genetic_position = 3.0;
    quietly([&] { d.set_switch_rates(); });
    EXPECT_TRUE(d.snps[100].switch_rates.empty());
    double const jump = (1 - std::exp(-2.0 / 4)) / 4;
    ASSERT_EQ(d.snps[300].switch_rates.size(), 2u);
    EXPECT_NEAR(d.snps[300].switch_rates[1], jump, 1e-15);
    EXPECT_NEAR(d.snps[300].switch_rates[0], 1 - 3 * jump, 1e-15);
    EXPECT_NEAR(d.snps[300].rate_per_base, 2.0 / 200, 1e-15);
    EXPECT_EQ(d.snps[400].switch_rates, (std::vector<double>{1.0, 0.0}));  // no genetic distance: always stay
    EXPECT_EQ(d.snps[400].rate_per_base, 0.0);
}

TEST(MutationMatrix, ThetaGivenOrFromTheHarmonicSum) {
    TempDir dir;
    struct Case { std::vector<std::string> args; int K; double theta; };
    for (Case const& c : {Case{{}, 4, 6.0 / 11.0}, Case{{"-theta", "0"}, 4, 0.0}, Case{{"-theta", "0.2"}, 10, 0.2}}) {
        data d = store_for(dir, c.args);
        d.n_haplotypes = c.K;
        d.mutation_matrix.assign(3, std::vector<double>(4, 0.0));
        EXPECT_EQ(quietly([&] { d.set_mutation_matrix(d.n_haplotypes); }),
                  "setting mutation rate and mutation matrices...done\n");
        EXPECT_NEAR(d.theta, c.theta, 1e-15);
        double const e = 0.5 * c.theta / (c.theta + c.K), s = 1 - e;  // theta 0: all mass on g = a
        std::vector<std::vector<double>> const expected = {
            {s * s, 2 * s * e, e * e, 1.0}, {s * e, s * s + e * e, s * e, 1.0}, {e * e, 2 * s * e, s * s, 1.0}};
        ASSERT_EQ(d.mutation_matrix.size(), 3u);
        for (int a = 0; a < 3; ++a)
            for (int g = 0; g < 4; ++g) EXPECT_NEAR(d.mutation_matrix[a][g], expected[a][g], 1e-15) << a << g;
    }
    data one = store_for(dir);  // a single haplotype: theta infinite, e not a number
    one.n_haplotypes = 1;
    quietly([&] { one.set_mutation_matrix(one.n_haplotypes); });
    EXPECT_TRUE(std::isinf(one.theta));
    EXPECT_TRUE(std::isnan(one.mutation_matrix[0][0]));
    EXPECT_EQ(one.mutation_matrix[0][3], 1.0);
}
