// Strand assignment and prediction, and the set-up step that aligns alleles.
#include <cmath>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// A genotyped record: three individuals with calls 0, 2 and 3.
snp genotyped(std::string const& a0, std::string const& a1, std::string const& ga, std::string const& gb,
              double hap_frequency, double genotype_frequency) {
    snp s = panel_snp("rs", a0, a1, hap_frequency);
    s.snp_id = "id";
    s.genotype_allele_a = ga;
    s.genotype_allele_b = gb;
    s.genotypes = {0, 2, 3};
    s.genotype_probs = {{0.9, 0.1, 0.0}, {0.0, 0.05, 0.95}, {0.3, 0.3, 0.4}};
    s.genotype_frequency = genotype_frequency;
    s.data_type = 2;
    return s;
}

std::vector<std::vector<double>> const kReversed = {{0.0, 0.1, 0.9}, {0.95, 0.05, 0.0}, {0.4, 0.3, 0.3}};

}  // namespace

TEST(Flip, ComplementsSingleBasesAndWarnsOtherwise) {
    std::string out = quietly([] {
        EXPECT_EQ(flip("A"), "T");
        EXPECT_EQ(flip("T"), "A");
        EXPECT_EQ(flip("C"), "G");
        EXPECT_EQ(flip("G"), "C");
    });
    EXPECT_EQ(out, "");
    out = quietly([] {
        EXPECT_EQ(flip("a"), "N");
        EXPECT_EQ(flip("AT"), "N");
    });
    EXPECT_EQ(out,
              "WARNING!!! Unknown allele type a detected during strand alignment\n"
              "WARNING!!! Unknown allele type AT detected during strand alignment\n");
}

TEST(StrandFile, AppliesStrandsByExactPosition) {
    TempDir dir;
    // Blank, unmatched and unparsable lines count as read; the last line has no newline.
    write_file(dir.file("strand.txt"), "1000 -\n2000 +\n\n3000\nxyz -\n9999 -\n1000 +\n3000 -");
    data d = empty_store(parse_parameters(dir, {"-strand", dir.file("strand.txt")}));
    d.snps[1000] = genotyped("A", "G", "A", "G", 0.5, 0.5);
    d.snps[2000] = genotyped("A", "G", "A", "G", 0.5, 0.5);
    d.snps[3000] = genotyped("A", "G", "A", "G", 0.5, 0.5);
    d.snps[4000] = genotyped("A", "G", "A", "G", 0.5, 0.5);
    d.snps[5000] = panel_snp("rs", "A", "G");  // no genotypes: never counted as missing
    std::string const out = quietly([&] { d.read_strand_data(); });
    EXPECT_EQ(d.snps[1000].strand, "+");  // listed twice: the later value wins
    EXPECT_EQ(d.snps[2000].strand, "+");
    EXPECT_EQ(d.snps[3000].strand, "-");
    EXPECT_EQ(d.snps[4000].strand, "*");
    EXPECT_EQ(out,
              "Reading strand file ... done\n"
              "          Number of positions with strand information read: 8\n"
              "             Number of positions where a strand is applied: 4\n"
              "           Number of genotyped SNPs still missing a strand: 1\n");
}

TEST(StrandFile, UnopenableFileIsAnError) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {"-strand", dir.file("none.txt")}));
    EXPECT_EQ(error_of([&] { d.read_strand_data(); }),
              "Error reading file " + dir.file("none.txt") + ": can't open strand file");
}

TEST(StrandPrediction, ReversesOnlyClearlyMismatchedFrequencies) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {"-fix_strand"}));
    d.snps[1] = genotyped("A", "G", "A", "G", 0.1, 0.85);  // reversed
    d.snps[2] = genotyped("A", "G", "A", "G", 0.5, 0.5);   // near one half: never
    d.snps[3] = genotyped("A", "G", "A", "G", 0.1, 0.5);   // far apart but not summing to one
    d.snps[4] = genotyped("A", "G", "A", "G", 0.1, 0.3);   // |r - g| = 0.2 exactly: not > 0.2
    d.snps[5] = genotyped("A", "G", "A", "G", 0.1, 0.85);
    d.snps[5].strand = "+";  // a known strand is left alone
    std::string const out = quietly([&] { d.read_strand_data(); });

    snp const& f = d.snps[1];
    EXPECT_EQ(f.strand, "f");
    EXPECT_EQ(f.genotypes, (std::vector<int>{2, 0, 3}));
    EXPECT_EQ(f.genotype_probs, kReversed);
    EXPECT_NEAR(f.genotype_frequency, 0.15, 1e-15);
    EXPECT_EQ(f.genotype_allele_a, "A");  // letters untouched
    for (double pos : {2.0, 3.0, 4.0}) {
        EXPECT_EQ(d.snps[pos].strand, "*") << pos;
        EXPECT_EQ(d.snps[pos].genotypes, (std::vector<int>{0, 2, 3})) << pos;
    }
    EXPECT_EQ(d.snps[5].genotypes, (std::vector<int>{0, 2, 3}));
    // The missing count includes the SNP that was then fixed.
    EXPECT_EQ(out,
              "WARNING!! You have not supplied a strand file. Ketra will try to predict the strand by matching the "
              "allele frequencies in the reference and the inference data.\n\n"
              "          Number of positions with strand information read: 0\n"
              "             Number of positions where a strand is applied: 0\n"
              "           Number of genotyped SNPs still missing a strand: 4 (fixed by allele frequency)\n");
}

TEST(StrandPrediction, WithoutFixNothingChanges) {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {}));
    d.snps[1] = genotyped("A", "G", "A", "G", 0.1, 0.85);
    std::string const out = quietly([&] { d.read_strand_data(); });
    EXPECT_EQ(d.snps[1].strand, "*");
    EXPECT_EQ(d.snps[1].genotypes, (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(out,
              "WARNING!! You have not supplied a strand file. All genotype data will be assumed to be on the forward "
              "strand.\n\n"
              "          Number of positions with strand information read: 0\n"
              "             Number of positions where a strand is applied: 0\n"
              "           Number of genotyped SNPs still missing a strand: 1\n");
}

namespace {

struct Setup : ::testing::Test {
    TempDir dir;
    data d = empty_store(parse_parameters(dir, {"-int", "100", "200", "-theta", "0"}));
    std::string console;
    void run() {
        d.n_haplotypes = 2;
        d.n_individuals = 3;
        console = quietly([&] { d.setup(); });
    }
};

}  // namespace

TEST_F(Setup, KeepsGenotypedSnpsAndSummarisesRegions) {
    d.snps[50] = genotyped("A", "G", "C", "T", 0.5, 0.5);
    d.snps[100] = genotyped("A", "G", "C", "T", 0.5, 0.5);
    d.snps[150] = panel_snp("rs", "A", "G");  // panel only: dropped
    d.snps[200] = genotyped("A", "G", "C", "T", 0.5, 0.5);
    d.snps[201] = genotyped("A", "G", "C", "T", 0.5, 0.5);
    d.snps[202] = genotyped("A", "G", "C", "T", 0.5, 0.5);
    d.snps[202].data_type = 3;  // anything but 2 is dropped
    d.snps[100].genetic_position = 0.0;
    d.snps[200].genetic_position = 1.0;
    run();
    EXPECT_EQ(d.snps.size(), 4u);
    EXPECT_EQ(d.snps.count(150), 0u);
    EXPECT_EQ(d.snps.count(202), 0u);
    EXPECT_EQ(d.parameters.num_individuals, 3);
    ASSERT_EQ(d.mutation_matrix.size(), 3u);
    EXPECT_EQ(d.mutation_matrix[1], (std::vector<double>{0, 1, 0, 1}));
    EXPECT_EQ(d.snps[200].switch_rates.size(), 2u);  // rates use the filtered table
    EXPECT_NEAR(d.snps[200].rate_per_base, 1.0 / 100, 1e-15);
    EXPECT_EQ(console,
              "\nNot including data at SNPs with no genotypes\n"
              "\nSummary :\n"
              "1 SNPs in left-hand buffer region\n"
              "1 SNPs in right-hand buffer region\n"
              "2 SNPs are in region of interest\n"
              "4 SNPs in total\n"
              "\n"
              "equating strand orientation and allele labels of haplotypes and genotypes...done\n"
              "setting storage space...done\n"
              "setting mutation rate and mutation matrices...done\n"
              "setting switch rates...done\n");
}

TEST_F(Setup, EmptyTableGoesOn) {
    d.snps[150] = panel_snp("rs", "A", "G");
    run();
    EXPECT_TRUE(d.snps.empty());
    EXPECT_NE(console.find("0 SNPs in left-hand buffer region\n0 SNPs in right-hand buffer region\n0 SNPs are in "
                           "region of interest\n0 SNPs in total\n"),
              std::string::npos);
}

TEST_F(Setup, AlignsAllelesToThePanel) {
    d.snps[110] = genotyped("T", "C", "A", "G", 0.5, 0.3);  // "-": A->T, G->C; T is not allele 1: no swap
    d.snps[110].strand = "-";
    d.snps[120] = genotyped("A", "G", "G", "A", 0.5, 0.3);  // "+" and A equals allele 1: swap
    d.snps[120].strand = "+";
    d.snps[130] = genotyped("C", "T", "G", "A", 0.5, 0.3);  // "-": G->C, A->T; C is allele 0: no swap
    d.snps[130].strand = "-";
    d.snps[140] = genotyped("A", "G", "C", "A", 0.5, 0.3);  // "-": C->G equals allele 1: swap after flipping
    d.snps[140].strand = "-";
    d.snps[150] = genotyped("A", "G", "g", "a", 0.5, 0.3);  // lower case never matches
    d.snps[160] = genotyped("A", "G", "G", "A", 0.5, std::nan(""));
    d.snps[170] = genotyped("A", "G", "G", "A", 0.5, 0.3);  // "f" letters are not complemented
    d.snps[170].strand = "f";
    run();

    EXPECT_EQ(d.snps[110].genotype_allele_a, "T");
    EXPECT_EQ(d.snps[110].genotype_allele_b, "C");
    EXPECT_EQ(d.snps[110].genotypes, (std::vector<int>{0, 2, 3}));

    snp const& sw = d.snps[120];
    EXPECT_EQ(sw.genotype_allele_a, "A");
    EXPECT_EQ(sw.genotype_allele_b, "G");
    EXPECT_EQ(sw.genotypes, (std::vector<int>{2, 0, 3}));
    EXPECT_EQ(sw.genotype_probs, kReversed);
    EXPECT_NEAR(sw.genotype_frequency, 0.7, 1e-15);

    EXPECT_EQ(d.snps[130].genotype_allele_a, "C");
    EXPECT_EQ(d.snps[130].genotype_allele_b, "T");
    EXPECT_EQ(d.snps[130].genotypes, (std::vector<int>{0, 2, 3}));

    EXPECT_EQ(d.snps[140].genotype_allele_a, "T");
    EXPECT_EQ(d.snps[140].genotype_allele_b, "G");
    EXPECT_EQ(d.snps[140].genotypes, (std::vector<int>{2, 0, 3}));

    EXPECT_EQ(d.snps[150].genotype_allele_a, "g");
    EXPECT_EQ(d.snps[150].genotypes, (std::vector<int>{0, 2, 3}));

    EXPECT_EQ(d.snps[160].genotypes, (std::vector<int>{2, 0, 3}));
    EXPECT_TRUE(std::isnan(d.snps[160].genotype_frequency));

    EXPECT_EQ(d.snps[170].genotype_allele_a, "A");
    EXPECT_EQ(d.snps[170].genotypes, (std::vector<int>{2, 0, 3}));
    EXPECT_EQ(console.find("WARNING"), std::string::npos);
}

TEST_F(Setup, UnknownLettersOnReverseStrandBecomeN) {
    d.snps[150] = genotyped("A", "G", "AT", "G", 0.5, 0.3);
    d.snps[150].strand = "-";
    run();
    EXPECT_EQ(d.snps[150].genotype_allele_a, "N");
    EXPECT_EQ(d.snps[150].genotype_allele_b, "C");
    EXPECT_NE(console.find("WARNING!!! Unknown allele type AT detected during strand alignment\n"), std::string::npos);
}
