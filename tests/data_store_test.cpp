// The whole input stage: a data store built from a small consistent dataset.
#include <cmath>
#include <sstream>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// Four reference haplotypes, three individuals. With -int 2000 6000 -buffer 1
// the panel keeps 1500..7000; 5000 has no genotypes, 3500 is not in the
// panel, "g4" (at 4000) is excluded, and rs2's genotype labels are reversed.
struct Dataset {
    TempDir dir;
    Dataset() {
        write_file(dir.file("map.txt"), "position rate cM\n1000 0 0.0\n2000 0 0.1\n3000 0 0.1\n6000 0 0.4\n");
        write_file(dir.file("ref.legend"), "id position a0 a1\nrs0 500 A G\nrs1 1500 A G\nrs2 2500 C T\n"
                                           "rs3 4000 A C\nrs4 5000 G T\nrs5 7000 A G\nrs6 8000 A G\n");
        write_file(dir.file("ref.hap"), "0 0 0 0\n0 1 0 0\n1 1 0 0\n0 0 1 1\n1 0 1 0\n0 0 0 1\n1 1 1 1\n");
        write_gz_file(dir.file("study.gen.gz"),
                      "g1 rs1 1500 A G 1 0 0 0 1 0 0 0 1\ng2 rs2 2500 T C 0 0 1 0 0 1 0.5 0.5 0\n"
                      "g3 rs9 3500 A G 1 0 0 1 0 0 1 0 0\ng4 rsX 4000 A C 0.9 0.1 0 1 0 0 0 1 0\n"
                      "g6 rs5 7000 A G 0 1 0 0 1 0 0 1 0\ng7 rs6 8000 A G 0 1 0 0 1 0 0 1 0\n");
        write_file(dir.file("strand.txt"), "7000 -\n2500 +\n9999 -\n");
        write_file(dir.file("exclude_snps.txt"), "g4\n");
        write_file(dir.file("study.sample"), "ID_1 ID_2\n0 0\nA1 B1\nA2 B2\nA3 B3\n");
        write_file(dir.file("exclude_samples.txt"), "B2\n");
    }
    LSMatrixParameters full() const {
        return parse_parameters(dir, {"-g", dir.file("study.gen.gz"), "-int", "2000", "6000", "-buffer", "1",
                                      "-Ne", "2500", "-strand", dir.file("strand.txt"), "-exclude_snps",
                                      dir.file("exclude_snps.txt"), "-sample", dir.file("study.sample"),
                                      "-exclude_samples", dir.file("exclude_samples.txt")});
    }
};

std::string label(std::string const& text) { return std::string(60 - text.size(), ' ') + text; }

}  // namespace

TEST(DataStore, FullConstructionConsoleAndContents) {
    Dataset set;
    LSMatrixParameters const p = set.full();
    CoutCapture capture;
    data const d(p);
    std::string const excl = set.dir.file("exclude_snps.txt");
    EXPECT_EQ(capture.text(),
              "reading genetic map file ... done.\n" + label("number of rates read: ") + "4\n\n"
              "rescaling genetic map ... done\n\n\n"
              "Reading haplotype and legend files, looking for SNPs in [1000, 7000] ... done.\n" +
              label("number of haplotypes: ") + "4\n" + label("number of SNPs in total: ") + "7\n" +
              label("number of SNPs in interval: ") + "5\n\n\n"
              "Reading genotype file ... reading gzip file in gzip mode ... rs #'s don't agree : rs3 rsX\ndone\n" +
              label("number of individuals in genotype file: ") + "3\n" +
              label("number of SNPs in interval with haplotype data: ") + "4\n\nReading strand file ... done\n" +
              label("Number of positions with strand information read: ") + "3\n" +
              label("Number of positions where a strand is applied: ") + "2\n" +
              label("Number of genotyped SNPs still missing a strand: ") + "2\n\n"
              "Reading snps exclusion list " + excl + "\n -" + excl + "[1 SNP ids read in]\n"
              "In total 1 unique SNP ID's read in\n   1 SNPs removed.\n\nNot including data at SNPs with no genotypes\n"
              "\nSummary :\n1 SNPs in left-hand buffer region\n1 SNPs in right-hand buffer region\n"
              "1 SNPs are in region of interest\n3 SNPs in total\n\n"
              "equating strand orientation and allele labels of haplotypes and genotypes...done\n"
              "setting storage space...done\nsetting mutation rate and mutation matrices...done\n"
              "setting switch rates...done\nReading sample file ... done\nReading sample exclusion file ... done\n" +
              label("number of ids in sample exclusion list: ") + "1\nApplying sample filters ... done\n" +
              label("number of excluded sample ids in sample file: ") + "1\n" +
              label("number of individuals remaining for clustering: ") + "2\n\n\n"
              "writing .aux file: " + set.dir.file("run.aux") + "\n\n");

    ASSERT_EQ(d.snps.size(), 3u);
    EXPECT_EQ(d.n_haplotypes, 4);
    EXPECT_EQ(d.n_individuals, 2);
    EXPECT_EQ(d.parameters.num_individuals, 3);  // carried before the sample exclusions
    EXPECT_EQ(d.excluded_snp_ids, (std::set<std::string>{"g4"}));
    EXPECT_EQ(describe(d.snps.at(1500)), "rs1 g1 A/G 0100 A/G * 2 02");
    // rs2: genotype A equals the panel's allele 1, so labels and codes were
    // exchanged; individual 2 of 3 removed.
    snp const& s2 = d.snps.at(2500);
    EXPECT_EQ(describe(s2), "rs2 g2 C/T 1100 C/T + 2 03");
    EXPECT_EQ(s2.genotype_probs, (std::vector<std::vector<double>>{{1, 0, 0}, {0, 0.5, 0.5}}));
    EXPECT_DOUBLE_EQ(s2.genotype_frequency, 0.0);
    EXPECT_DOUBLE_EQ(s2.hap_frequency, 0.5);
    // rs5: reverse strand, complemented letters that match neither legend allele 1.
    snp const& s5 = d.snps.at(7000);
    EXPECT_EQ(describe(s5), "rs5 g6 A/G 0001 T/C - 2 11");

    // Genetic positions on the rescaled map (local rate 0.01 becomes 0.00660917).
    double const g1 = 6.609165022872839, g3 = 26.436660091491355;
    EXPECT_NEAR(d.snps.at(1500).genetic_position, g1 / 2, 1e-12);
    EXPECT_NEAR(s2.genetic_position, g1, 1e-12);
    EXPECT_NEAR(s5.genetic_position, g3, 1e-12);
    EXPECT_TRUE(d.snps.at(1500).switch_rates.empty());
    double const jump = (1 - std::exp(-(g1 / 2) / 4)) / 4;
    EXPECT_EQ(s2.switch_rates.size(), 2u);
    EXPECT_NEAR(s2.switch_rates.at(1), jump, 1e-15);
    EXPECT_NEAR(s2.switch_rates.at(0), 1 - 3 * jump, 1e-15);
    EXPECT_NEAR(s5.rate_per_base, (g3 - g1) / 4500, 1e-15);
    EXPECT_NEAR(d.theta, 6.0 / 11.0, 1e-15);
    double const e = 0.5 * (6.0 / 11.0) / (6.0 / 11.0 + 4);
    EXPECT_NEAR(d.mutation_matrix.at(2)[2], (1 - e) * (1 - e), 1e-15);
    EXPECT_NEAR(d.mutation_matrix.at(1)[0], (1 - e) * e, 1e-15);
}

TEST(DataStore, AuxFileHoldsTheStoresParameterSummary) {
    Dataset set;
    // No -int: the store's copy holds the interval defaults, and that is what the aux file shows.
    LSMatrixParameters const p = parse_parameters(set.dir, {"-g", set.dir.file("study.gen.gz"), "-buffer", "1"});
    CoutCapture capture;
    data const d(p);
    std::ostringstream expected;
    d.parameters.parameters_summary(expected);
    std::string const aux = read_file(set.dir.file("run.aux"));
    EXPECT_EQ(aux, expected.str());
    EXPECT_EQ(aux.rfind("Command line output is:\n", 0), 0u);
    EXPECT_TRUE(contains(aux, label("lower: ") + "0\n" + label("upper: ") + "1e+12\n"));
    EXPECT_TRUE(contains(capture.text(), "WARNING!! No exclusion list given, so all SNPs will be used for "
                                         "inference.\n\n   0 SNPs removed.\n"));
    // Without -exclude_samples the sample file is never read.
    EXPECT_FALSE(contains(capture.text(), "Reading sample file"));
}

TEST(DataStore, UnwritableAuxFileOnlyWarnsAndReaderErrorsLeaveTheConstructor) {
    Dataset set;
    LSMatrixParameters p = set.full();
    p.aux_filename = set.dir.file("missing/dir/run.aux");
    std::string out = quietly([&] { EXPECT_EQ(data(p).snps.size(), 3u); });
    std::string const tail = "remaining for clustering: 2\n\n\nWarning can't write aux file: " + p.aux_filename + "\n";
    ASSERT_GE(out.size(), tail.size());
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail);

    LSMatrixParameters const missing = parse_parameters(set.dir, {"-g", set.dir.file("none.gen")});
    EXPECT_EQ(error_of([&] { data d(missing); }),
              "Error reading file " + set.dir.file("none.gen") + ":  can't opened file.");
}
