// The reference panel reader: legend and haplotype files in lock-step.
#include <cmath>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

struct Panel : ::testing::Test {
    TempDir dir;
    std::string console;

    // Reads legend rows (without the header) and haplotype text with
    // -int 10000 20000 -buffer 1: the widened interval is [9000, 21000].
    data read(std::string const& legend_rows, std::string const& haplotypes,
              std::vector<std::string> args = {"-int", "10000", "20000", "-buffer", "1"}) {
        write_file(dir.file("ref.legend"), "id position a0 a1\n" + legend_rows);
        write_file(dir.file("ref.hap"), haplotypes);
        data d = empty_store(parse_parameters(dir, args));
        d.map_positions = {0, 100000};
        d.map_genetic = {0, 100};
        console = quietly([&] { d.read_haplotype_data(); });
        return d;
    }
    std::string error(std::string const& legend_rows, std::string const& haplotypes) {
        write_file(dir.file("ref.legend"), "id position a0 a1\n" + legend_rows);
        write_file(dir.file("ref.hap"), haplotypes);
        data d = empty_store(parse_parameters(dir, {"-int", "10000", "20000", "-buffer", "1"}));
        d.map_positions = {0, 100000};
        d.map_genetic = {0, 100};
        return error_of([&] { d.read_haplotype_data(); });
    }
    std::string hap() const { return dir.file("ref.hap"); }
    std::string legend() const { return dir.file("ref.legend"); }
};

}  // namespace

TEST_F(Panel, KeepsInclusiveWidenedIntervalAndFillsRecords) {
    data d = read(
        "rs1 8999 A G\n"
        "rs2 9000 C T extra columns\n"
        "rs3 15000 A C\n"
        "rs4 21000 G T\n"
        "rs5 21001 A G\n"
        "rs6 15500 A G\n",
        "0 0 0 1\n0 1 1 1\n1 1 0 0\n0 0 0 0\n1 1 1 1\n1 1 1 1\n");
    ASSERT_EQ(d.snps.size(), 3u);
    EXPECT_EQ(d.n_haplotypes, 4);
    EXPECT_EQ(d.snps.count(8999), 0u);
    EXPECT_EQ(d.snps.count(15500), 0u);  // after the first line beyond the interval nothing is read
    snp const& s = d.snps.at(9000);
    EXPECT_EQ(s.rs_id, "rs2");
    EXPECT_EQ(s.snp_id, "---");
    EXPECT_EQ(s.legend_allele_0, "C");
    EXPECT_EQ(s.legend_allele_1, "T");
    EXPECT_EQ(s.haplotype_alleles, (std::vector<int>{0, 1, 1, 1}));
    EXPECT_DOUBLE_EQ(s.hap_frequency, 0.75);
    EXPECT_EQ(s.genotype_allele_a, "*");
    EXPECT_EQ(s.genotype_allele_b, "*");
    EXPECT_EQ(s.strand, "*");
    EXPECT_EQ(s.data_type, 1);
    EXPECT_DOUBLE_EQ(s.genetic_position, 9.0);
    EXPECT_EQ(d.snps.at(21000).rs_id, "rs4");
    EXPECT_EQ(console,
              "\nReading haplotype and legend files, looking for SNPs in [9000, 21000] ... done.\n"
              "                                      number of haplotypes: 4\n"
              "                                   number of SNPs in total: 5\n"
              "                                number of SNPs in interval: 3\n"
              "\n");
}

TEST_F(Panel, FirstRecordAtAPositionWins) {
    data d = read("rs1 12000 A G\nrs2 12000 C T\nrs3 13000 A G\n", "0 1\n1 1\n0 0\n");
    ASSERT_EQ(d.snps.size(), 2u);
    EXPECT_EQ(d.snps.at(12000).rs_id, "rs1");
    EXPECT_EQ(d.snps.at(12000).haplotype_alleles, (std::vector<int>{0, 1}));
    EXPECT_NE(console.find("number of SNPs in interval: 2\n"), std::string::npos);
    EXPECT_NE(console.find("number of SNPs in total: 3\n"), std::string::npos);
}

TEST_F(Panel, NoIntervalMeansEverythingPlusBuffer) {
    data d = read("rs1 1 A G\nrs2 999999999 A G\n", "0 1\n1 1\n", {});
    EXPECT_EQ(d.snps.size(), 2u);
    EXPECT_NE(console.find("looking for SNPs in [-500000, 1e+12] ... "), std::string::npos);
}

TEST_F(Panel, UnequalFileLengthsWarn) {
    read("rs1 12000 A G\n", "0 1\n1 1\n");
    EXPECT_NE(console.find("number of SNPs in interval: 1\n\nWarning: haplotype file contained more lines than "
                           "legend file, only those SNPs with a line in the legend file were read.\n"),
              std::string::npos);
    read("rs1 12000 A G\nrs2 13000 A G\n", "0 1\n");
    EXPECT_NE(console.find("Warning: legend file contained more lines than haplotype file, only those SNPs with a "
                           "line in the haplotype file were read.\n"),
              std::string::npos);
    // Ending at a line beyond the interval, or both files together: no warning.
    read("rs1 12000 A G\nrs2 30000 A G\n", "0 1\n1 1\n1 1\n");
    EXPECT_EQ(console.find("Warning"), std::string::npos);
    read("rs1 12000 A G\n", "0 1\n");
    EXPECT_EQ(console.find("Warning"), std::string::npos);
}

TEST_F(Panel, Errors) {
    EXPECT_EQ(error("", ""), "Error reading file " + hap() + ": No SNPs in the interval in haplotype file!");
    EXPECT_EQ(error("rs1 1000 A G\n", "0 1\n"),
              "Error reading file " + hap() + ": No SNPs in the interval in haplotype file!");
    // The count error is checked on every line, also outside the interval.
    EXPECT_EQ(error("rs1 1000 A G\nrs2 2000 A G\nrs3 3000 A G\n", "0 1 1\n0 1 1\n0 1\n"),
              "Error reading file " + hap() + ": different number of haplotypes found in haplotype file (3 and 2 "
              "on line 3.");
    EXPECT_EQ(error("rs1 12000 A G\nrs2 13000 A G\n", "0 1\n0 x\n"),
              "Error reading file " + hap() + ": bad format detected in haplotype file on line 2.");
    EXPECT_EQ(error("rs1 12000 A G\n", "0 1.5\n"),
              "Error reading file " + hap() + ": bad format detected in haplotype file on line 1.");
    // Codes other than 0 and 1 would index outside the emission matrix.
    EXPECT_EQ(error("rs1 12000 A G\nrs2 13000 A G\n", "0 1\n2 1\n"),
              "Error reading file " + hap() + ": bad format detected in haplotype file on line 2.");
    EXPECT_EQ(error("rs1 12000 A G\n", "0 -1\n"),
              "Error reading file " + hap() + ": bad format detected in haplotype file on line 1.");
    EXPECT_EQ(error("rs1 12000 A G\n", "0 99999999999999999999\n"),
              "Error reading file " + hap() + ": bad format detected in haplotype file on line 1.");

    write_file(legend(), "h\n");
    data d = empty_store(parse_parameters(dir, {"-h", dir.file("none.hap")}));
    EXPECT_EQ(error_of([&] { d.read_haplotype_data(); }),
              "Error reading file " + dir.file("none.hap") + ": can't open haplotype file.");
    write_file(hap(), "0 1\n");
    data d2 = empty_store(parse_parameters(dir, {"-l", dir.file("none.legend")}));
    EXPECT_EQ(error_of([&] { d2.read_haplotype_data(); }),
              "Error reading file " + dir.file("none.legend") + ": can't open legend file.");
}

TEST_F(Panel, HeaderOnlyLegendReportsZeroTotal) {
    write_file(legend(), "id position a0 a1\n");
    write_file(hap(), "0 1\n");
    data d = empty_store(parse_parameters(dir, {}));
    std::string out;
    {
        CoutCapture capture;
        try {
            d.read_haplotype_data();
            ADD_FAILURE() << "no error";
        } catch (badfilename const& e) {
            EXPECT_EQ(e.what(), "Error reading file " + hap() + ": No SNPs in the interval in haplotype file!");
        }
        out = capture.text();
    }
    EXPECT_NE(out.find("number of SNPs in total: 0\n"), std::string::npos);
    EXPECT_NE(out.find("number of haplotypes: -1\n"), std::string::npos);
}

TEST_F(Panel, CrlfAndTabsAreAccepted) {
    data d = read("rs1\t12000\tA\tG\r\n", "0\t1  1\r\n");
    ASSERT_EQ(d.snps.size(), 1u);
    EXPECT_EQ(d.snps.at(12000).legend_allele_1, "G");
    EXPECT_EQ(d.snps.at(12000).haplotype_alleles, (std::vector<int>{0, 1, 1}));
}
