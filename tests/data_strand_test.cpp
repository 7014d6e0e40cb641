// Strand assignment and prediction, and the set-up step that aligns alleles.
#include <cmath>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// A genotyped record: three individuals with calls 0, 2 and 3.
snp genotyped(std::string const& legend, std::string const& calls, double hap_frequency = 0.5,
              double genotype_frequency = 0.5, std::string const& strand = "*") {
    snp s = panel_snp("rs", legend.substr(0, 1), legend.substr(1), hap_frequency);
    s.snp_id = "id";
    s.genotype_allele_a = calls.substr(0, calls.find('/'));
    s.genotype_allele_b = calls.substr(calls.find('/') + 1);
    s.strand = strand;
    s.genotypes = {0, 2, 3};
    s.genotype_probs = {{0.9, 0.1, 0.0}, {0.0, 0.05, 0.95}, {0.3, 0.3, 0.4}};
    s.genotype_frequency = genotype_frequency;
    s.data_type = 2;
    return s;
}

std::vector<std::vector<double>> const kReversed = {{0.0, 0.1, 0.9}, {0.95, 0.05, 0.0}, {0.4, 0.3, 0.3}};

std::string counts(int read, int applied, std::string const& missing) {
    return "          Number of positions with strand information read: " + std::to_string(read) +
           "\n             Number of positions where a strand is applied: " + std::to_string(applied) +
           "\n           Number of genotyped SNPs still missing a strand: " + missing + "\n";
}

}  // namespace

TEST(Flip, ComplementsSingleBasesAndWarnsOtherwise) {
    EXPECT_EQ(quietly([] { EXPECT_EQ(flip("A") + flip("T") + flip("C") + flip("G"), "TAGC"); }), "");
    EXPECT_EQ(quietly([] {
                  EXPECT_EQ(flip("a"), "N");
                  EXPECT_EQ(flip("AT"), "N");
              }),
              "WARNING!!! Unknown allele type a detected during strand alignment\n"
              "WARNING!!! Unknown allele type AT detected during strand alignment\n");
}

TEST(StrandFile, AppliesStrandsByExactPosition) {
    TempDir dir;
    // Blank, unmatched and unparsable lines count as read; the last line has no newline.
    write_file(dir.file("strand.txt"), "1000 -\n2000 +\n\n3000\nxyz -\n9999 -\n1000 +\n3000 -");
    data d = store_for(dir, {"-strand", dir.file("strand.txt")});
    for (int pos : {1000, 2000, 3000, 4000}) d.snps[pos] = genotyped("AG", "A/G");
    d.snps[5000] = panel_snp("rs", "A", "G");  // no genotypes: never counted as missing
    EXPECT_EQ(quietly([&] { d.read_strand_data(); }), "Reading strand file ... done\n" + counts(8, 4, "1"));
    // Listed twice: the later value wins.
    EXPECT_EQ(d.snps[1000].strand + d.snps[2000].strand + d.snps[3000].strand + d.snps[4000].strand, "++-*");

    data none = store_for(dir, {"-strand", dir.file("none.txt")});
    EXPECT_EQ(error_of([&] { none.read_strand_data(); }),
              "Error reading file " + dir.file("none.txt") + ": can't open strand file");
}

TEST(StrandPrediction, ReversesOnlyClearlyMismatchedFrequenciesInFixMode) {
    TempDir dir;
    for (bool fix : {true, false}) {
        data d = store_for(dir, fix ? std::vector<std::string>{"-fix_strand"} : std::vector<std::string>{});
        d.snps[1] = genotyped("AG", "A/G", 0.1, 0.85);       // reversed when fixing
        d.snps[2] = genotyped("AG", "A/G", 0.5, 0.5);        // near one half: never
        d.snps[3] = genotyped("AG", "A/G", 0.1, 0.5);        // far apart but not summing to one
        d.snps[4] = genotyped("AG", "A/G", 0.1, 0.3);        // |r - g| = 0.2 exactly: not > 0.2
        d.snps[5] = genotyped("AG", "A/G", 0.1, 0.85, "+");  // a known strand is left alone
        std::string const out = quietly([&] { d.read_strand_data(); });
        snp const& f = d.snps[1];
        EXPECT_EQ(describe(f), fix ? "rs id A/G 01 A/G f 2 203" : "rs id A/G 01 A/G * 2 023");  // letters untouched
        EXPECT_EQ(f.genotype_probs == kReversed, fix);
        EXPECT_NEAR(f.genotype_frequency, fix ? 0.15 : 0.85, 1e-15);
        for (double pos : {2.0, 3.0, 4.0, 5.0})
            EXPECT_EQ(describe(d.snps[pos]), std::string("rs id A/G 01 A/G ") + (pos == 5.0 ? "+" : "*") + " 2 023");
        // The missing count includes the SNP that was then fixed.
        EXPECT_EQ(out, fix ? "WARNING!! You have not supplied a strand file. Ketra will try to predict the strand by "
                             "matching the allele frequencies in the reference and the inference data.\n\n" +
                                 counts(0, 0, "4 (fixed by allele frequency)")
                           : "WARNING!! You have not supplied a strand file. All genotype data will be assumed to be "
                             "on the forward strand.\n\n" + counts(0, 0, "4"));
    }
}

namespace {

struct Setup : ::testing::Test {
    TempDir dir;
    data d = store_for(dir, {"-int", "100", "200", "-theta", "0"});
    std::string console;
    void run() {
        d.n_haplotypes = 2;
        d.n_individuals = 3;
        console = quietly([&] { d.setup(); });
    }
};

}  // namespace

TEST_F(Setup, KeepsGenotypedSnpsAndSummarisesRegions) {
    for (int pos : {50, 100, 200, 201, 202}) d.snps[pos] = genotyped("AG", "C/T");
    d.snps[150] = panel_snp("rs", "A", "G");  // panel only: dropped
    d.snps[202].data_type = 3;                // anything but 2 is dropped
    d.snps[200].genetic_position = 1.0;
    run();
    EXPECT_EQ(d.snps.size(), 4u);
    EXPECT_EQ(d.snps.count(150) + d.snps.count(202), 0u);
    EXPECT_EQ(d.parameters.num_individuals, 3);
    ASSERT_EQ(d.mutation_matrix.size(), 3u);
    EXPECT_EQ(d.mutation_matrix[1], (std::vector<double>{0, 1, 0, 1}));
    EXPECT_EQ(d.snps[200].switch_rates.size(), 2u);  // rates use the filtered table
    EXPECT_NEAR(d.snps[200].rate_per_base, 1.0 / 100, 1e-15);
    std::string const tail = "equating strand orientation and allele labels of haplotypes and genotypes...done\n"
                             "setting storage space...done\nsetting mutation rate and mutation matrices...done\n"
                             "setting switch rates...done\n";
    EXPECT_EQ(console, "\nNot including data at SNPs with no genotypes\n\nSummary :\n1 SNPs in left-hand buffer region\n"
                       "1 SNPs in right-hand buffer region\n2 SNPs are in region of interest\n4 SNPs in total\n\n" + tail);

    d.snps.clear();  // an empty table goes on
    d.snps[150] = panel_snp("rs", "A", "G");
    run();
    EXPECT_TRUE(d.snps.empty());
    EXPECT_TRUE(contains(console, "0 SNPs in left-hand buffer region\n0 SNPs in right-hand buffer region\n0 SNPs are in "
                                  "region of interest\n0 SNPs in total\n"));
}

TEST_F(Setup, AlignsAllelesToThePanel) {
    struct Case { std::string legend, calls, strand, after; };
    std::vector<Case> const cases = {
        {"TC", "A/G", "-", "T/C 023"},   // A->T, G->C; T is not allele 1: no swap
        {"AG", "G/A", "+", "A/G 203"},   // A equals allele 1: swap
        {"CT", "G/A", "-", "C/T 023"},   // G->C, A->T; C is allele 0: no swap
        {"AG", "C/A", "-", "T/G 203"},   // C->G equals allele 1 after flipping: swap
        {"AG", "g/a", "*", "g/a 023"},   // lower case never matches
        {"AG", "G/A", "f", "A/G 203"},   // "f" letters are not complemented
        {"AG", "G/A", "*", "A/G 203"},   // with a not-a-number frequency
        {"AG", "AT/G", "-", "N/C 023"},  // unknown letters become N
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
        d.snps[110 + i] = genotyped(cases[i].legend, cases[i].calls, 0.5, i == 6 ? NAN : 0.3, cases[i].strand);
    run();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        snp const& s = d.snps[110 + i];
        std::string calls = s.genotype_allele_a + "/" + s.genotype_allele_b + " ";
        for (int g : s.genotypes) calls += std::to_string(g);
        EXPECT_EQ(calls, cases[i].after) << i;
        bool const swapped = cases[i].after.substr(cases[i].after.size() - 3) == "203";
        EXPECT_EQ(s.genotype_probs == kReversed, swapped) << i;  // triples reversed, frequency f -> 1 - f
        double const f = s.genotype_frequency;
        EXPECT_TRUE(i == 6 ? std::isnan(f) : std::fabs(f - (swapped ? 0.7 : 0.3)) < 1e-15) << i << " " << f;
    }
    EXPECT_EQ(console.find("WARNING"), console.rfind("WARNING"));
    EXPECT_TRUE(contains(console, "WARNING!!! Unknown allele type AT detected during strand alignment\n"));
}
