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
        write_file(dir.file("map.txt"),
                   "position rate cM\n"
                   "1000 0 0.0\n"
                   "2000 0 0.1\n"
                   "3000 0 0.1\n"
                   "6000 0 0.4\n");
        write_file(dir.file("ref.legend"),
                   "id position a0 a1\n"
                   "rs0 500 A G\n"
                   "rs1 1500 A G\n"
                   "rs2 2500 C T\n"
                   "rs3 4000 A C\n"
                   "rs4 5000 G T\n"
                   "rs5 7000 A G\n"
                   "rs6 8000 A G\n");
        write_file(dir.file("ref.hap"), "0 0 0 0\n0 1 0 0\n1 1 0 0\n0 0 1 1\n1 0 1 0\n0 0 0 1\n1 1 1 1\n");
        write_gz_file(dir.file("study.gen.gz"),
                      "g1 rs1 1500 A G 1 0 0 0 1 0 0 0 1\n"
                      "g2 rs2 2500 T C 0 0 1 0 0 1 0.5 0.5 0\n"
                      "g3 rs9 3500 A G 1 0 0 1 0 0 1 0 0\n"
                      "g4 rsX 4000 A C 0.9 0.1 0 1 0 0 0 1 0\n"
                      "g6 rs5 7000 A G 0 1 0 0 1 0 0 1 0\n"
                      "g7 rs6 8000 A G 0 1 0 0 1 0 0 1 0\n");
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

}  // namespace

TEST(DataStore, ConsoleOutputOfAFullConstruction) {
    Dataset set;
    LSMatrixParameters const p = set.full();
    std::string out;
    {
        CoutCapture capture;
        data d(p);
        out = capture.text();
    }
    std::string const excl = set.dir.file("exclude_snps.txt");
    EXPECT_EQ(out,
              "reading genetic map file ... done.\n"
              "                                      number of rates read: 4\n"
              "\n"
              "rescaling genetic map ... done\n"
              "\n"
              "\n"
              "Reading haplotype and legend files, looking for SNPs in [1000, 7000] ... done.\n"
              "                                      number of haplotypes: 4\n"
              "                                   number of SNPs in total: 7\n"
              "                                number of SNPs in interval: 5\n"
              "\n"
              "\n"
              "Reading genotype file ... reading gzip file in gzip mode ... rs #'s don't agree : rs3 rsX\n"
              "done\n"
              "                    number of individuals in genotype file: 3\n"
              "            number of SNPs in interval with haplotype data: 4\n"
              "\n"
              "Reading strand file ... done\n"
              "          Number of positions with strand information read: 3\n"
              "             Number of positions where a strand is applied: 2\n"
              "           Number of genotyped SNPs still missing a strand: 2\n"
              "\n"
              "Reading snps exclusion list " + excl + "\n"
              " -" + excl + "[1 SNP ids read in]\n"
              "In total 1 unique SNP ID's read in\n"
              "   1 SNPs removed.\n"
              "\n"
              "Not including data at SNPs with no genotypes\n"
              "\n"
              "Summary :\n"
              "1 SNPs in left-hand buffer region\n"
              "1 SNPs in right-hand buffer region\n"
              "1 SNPs are in region of interest\n"
              "3 SNPs in total\n"
              "\n"
              "equating strand orientation and allele labels of haplotypes and genotypes...done\n"
              "setting storage space...done\n"
              "setting mutation rate and mutation matrices...done\n"
              "setting switch rates...done\n"
              "Reading sample file ... done\n"
              "Reading sample exclusion file ... done\n"
              "                    number of ids in sample exclusion list: 1\n"
              "Applying sample filters ... done\n"
              "              number of excluded sample ids in sample file: 1\n"
              "            number of individuals remaining for clustering: 2\n"
              "\n"
              "\n"
              "writing .aux file: " + set.dir.file("run.aux") + "\n"
              "\n");
}

TEST(DataStore, FinalStoreContents) {
    Dataset set;
    LSMatrixParameters const p = set.full();
    CoutCapture capture;
    data const d(p);

    ASSERT_EQ(d.snps.size(), 3u);
    EXPECT_EQ(d.snps.count(1500) + d.snps.count(2500) + d.snps.count(7000), 3u);
    EXPECT_EQ(d.n_haplotypes, 4);
    EXPECT_EQ(d.n_individuals, 2);
    EXPECT_EQ(d.parameters.num_individuals, 3);  // carried before the sample exclusions
    EXPECT_EQ(d.excluded_snp_ids, (std::set<std::string>{"g4"}));

    // rs2: genotype A equals the panel's allele 1, so labels and codes were exchanged.
    snp const& s2 = d.snps.at(2500);
    EXPECT_EQ(s2.snp_id, "g2");
    EXPECT_EQ(s2.strand, "+");
    EXPECT_EQ(s2.genotype_allele_a, "C");
    EXPECT_EQ(s2.genotype_allele_b, "T");
    EXPECT_EQ(s2.genotypes, (std::vector<int>{0, 3}));  // individual 2 of 3 removed
    EXPECT_EQ(s2.genotype_probs, (std::vector<std::vector<double>>{{1, 0, 0}, {0, 0.5, 0.5}}));
    EXPECT_DOUBLE_EQ(s2.genotype_frequency, 0.0);
    EXPECT_DOUBLE_EQ(s2.hap_frequency, 0.5);

    // rs5: reverse strand, complemented letters that match neither legend allele 1.
    snp const& s5 = d.snps.at(7000);
    EXPECT_EQ(s5.genotype_allele_a, "T");
    EXPECT_EQ(s5.genotype_allele_b, "C");
    EXPECT_EQ(s5.genotypes, (std::vector<int>{1, 1}));

    // Genetic positions on the rescaled map (local rate 0.01 becomes 0.00660917).
    double const g1 = 6.609165022872839, g3 = 26.436660091491355;
    EXPECT_NEAR(d.snps.at(1500).genetic_position, g1 / 2, 1e-12);
    EXPECT_NEAR(s2.genetic_position, g1, 1e-12);
    EXPECT_NEAR(s5.genetic_position, g3, 1e-12);
    EXPECT_TRUE(d.snps.at(1500).switch_rates.empty());
    double const jump = (1 - std::exp(-(g1 / 2) / 4)) / 4;
    ASSERT_EQ(s2.switch_rates.size(), 2u);
    EXPECT_NEAR(s2.switch_rates[1], jump, 1e-15);
    EXPECT_NEAR(s2.switch_rates[0], 1 - 3 * jump, 1e-15);
    EXPECT_NEAR(s5.rate_per_base, (g3 - g1) / 4500, 1e-15);

    EXPECT_NEAR(d.theta, 6.0 / 11.0, 1e-15);
    double const e = 0.5 * (6.0 / 11.0) / (6.0 / 11.0 + 4);
    ASSERT_EQ(d.mutation_matrix.size(), 3u);
    EXPECT_NEAR(d.mutation_matrix[2][2], (1 - e) * (1 - e), 1e-15);
    EXPECT_NEAR(d.mutation_matrix[1][0], (1 - e) * e, 1e-15);
}

TEST(DataStore, AuxFileHoldsTheStoresParameterSummary) {
    Dataset set;
    // No -int: the store's copy holds the interval defaults, and that is what the aux file shows.
    LSMatrixParameters const p = parse_parameters(set.dir, {"-g", set.dir.file("study.gen.gz"), "-buffer", "1"});
    std::string out;
    {
        CoutCapture capture;
        data const d(p);
        out = capture.text();
        std::ostringstream expected;
        d.parameters.parameters_summary(expected);
        EXPECT_EQ(read_file(set.dir.file("run.aux")), expected.str());
    }
    std::string const aux = read_file(set.dir.file("run.aux"));
    EXPECT_EQ(aux.rfind("Command line output is:\n", 0), 0u);
    EXPECT_NE(aux.find("                                                     lower: 0\n"), std::string::npos);
    EXPECT_NE(aux.find("                                                     upper: 1e+12\n"), std::string::npos);
    EXPECT_NE(out.find("WARNING!! No exclusion list given, so all SNPs will be used for inference.\n\n"
                       "   0 SNPs removed.\n"),
              std::string::npos);
    // Without -exclude_samples the sample file is never read.
    EXPECT_EQ(out.find("Reading sample file"), std::string::npos);
}

TEST(DataStore, UnwritableAuxFileOnlyWarns) {
    Dataset set;
    LSMatrixParameters p = set.full();
    p.aux_filename = set.dir.file("missing/dir/run.aux");
    std::string out;
    {
        CoutCapture capture;
        data const d(p);
        out = capture.text();
        EXPECT_EQ(d.snps.size(), 3u);
    }
    std::string const tail = "remaining for clustering: 2\n\n\nWarning can't write aux file: " + p.aux_filename + "\n";
    ASSERT_GE(out.size(), tail.size());
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
}

TEST(DataStore, ReaderErrorsLeaveTheConstructor) {
    Dataset set;
    LSMatrixParameters const p = parse_parameters(set.dir, {"-g", set.dir.file("none.gen")});
    EXPECT_EQ(error_of([&] { data d(p); }),
              "Error reading file " + set.dir.file("none.gen") + ":  can't opened file.");
}
