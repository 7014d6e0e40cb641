// The reference panel reader: legend and haplotype files in lock-step.
#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

struct Panel : ::testing::Test {
    TempDir dir;
    std::string console, error;
    std::string hap() const { return dir.file("ref.hap"); }

    // Reads legend rows (without the header) and haplotype text, by default
    // with -int 10000 20000 -buffer 1: the widened interval is [9000, 21000].
    data read(std::string const& legend_rows, std::string const& haplotypes,
              std::vector<std::string> args = {"-int", "10000", "20000", "-buffer", "1"}) {
        write_file(dir.file("ref.legend"), "id position a0 a1\n" + legend_rows);
        write_file(hap(), haplotypes);
        data d = store_for(dir, args);
        d.map_positions = {0, 100000};
        d.map_genetic = {0, 100};
        CoutCapture capture;
        try {
            error.clear();
            d.read_haplotype_data();
        } catch (badfilename const& e) {
            error = e.what();
        }
        console = capture.text();
        return d;
    }
};

}  // namespace

TEST_F(Panel, KeepsInclusiveWidenedIntervalAndFillsRecords) {
    data d = read("rs1 8999 A G\nrs2 9000 C T extra columns\nrs3 15000 A C\nrs4 21000 G T\nrs5 21001 A G\n"
                  "rs6 15500 A G\n",
                  "0 0 0 1\n0 1 1 1\n1 1 0 0\n0 0 0 0\n1 1 1 1\n1 1 1 1\n");
    ASSERT_EQ(d.snps.size(), 3u);  // 15500 comes after the first line beyond the interval: not read
    EXPECT_EQ(d.n_haplotypes, 4);
    EXPECT_EQ(describe(d.snps.at(9000)), "rs2 --- C/T 0111 */* * 1 ");
    EXPECT_DOUBLE_EQ(d.snps.at(9000).hap_frequency, 0.75);
    EXPECT_DOUBLE_EQ(d.snps.at(9000).genetic_position, 9.0);
    EXPECT_EQ(describe(d.snps.at(21000)), "rs4 --- G/T 0000 */* * 1 ");
    EXPECT_EQ(console,
              "\nReading haplotype and legend files, looking for SNPs in [9000, 21000] ... done.\n"
              "                                      number of haplotypes: 4\n"
              "                                   number of SNPs in total: 5\n"
              "                                number of SNPs in interval: 3\n\n");
}

TEST_F(Panel, FirstRecordAtAPositionWinsAndOddLayoutsAreRead) {
    data d = read("rs1 12000 A G\nrs2 12000 C T\nrs3 13000 A G\n", "0 1\n1 1\n0 0\n");
    ASSERT_EQ(d.snps.size(), 2u);
    EXPECT_EQ(describe(d.snps.at(12000)), "rs1 --- A/G 01 */* * 1 ");
    EXPECT_TRUE(contains(console, "number of SNPs in total: 3\n                                number of SNPs in interval: 2\n"));

    d = read("rs1 1 A G\nrs2 999999999 A G\n", "0 1\n1 1\n", {});  // no interval: everything plus the buffer
    EXPECT_EQ(d.snps.size(), 2u);
    EXPECT_TRUE(contains(console, "looking for SNPs in [-500000, 1e+12] ... "));

    d = read("rs1\t12000\tA\tG\r\n", "0\t1  1\r\n");
    EXPECT_EQ(describe(d.snps.at(12000)), "rs1 --- A/G 011 */* * 1 ");
}

TEST_F(Panel, UnequalFileLengthsWarn) {
    read("rs1 12000 A G\n", "0 1\n1 1\n");
    EXPECT_TRUE(contains(console, "number of SNPs in interval: 1\n\nWarning: haplotype file contained more lines than "
                                  "legend file, only those SNPs with a line in the legend file were read.\n"));
    read("rs1 12000 A G\nrs2 13000 A G\n", "0 1\n");
    EXPECT_TRUE(contains(console, "Warning: legend file contained more lines than haplotype file, only those SNPs "
                                  "with a line in the haplotype file were read.\n"));
    // Ending at a line beyond the interval, or both files together: no warning.
    read("rs1 12000 A G\nrs2 30000 A G\n", "0 1\n1 1\n1 1\n");
    EXPECT_FALSE(contains(console, "Warning"));
    read("rs1 12000 A G\n", "0 1\n");
    EXPECT_FALSE(contains(console, "Warning"));
}

TEST_F(Panel, Errors) {
    std::string const none = "No SNPs in the interval in haplotype file!", bad = "bad format detected in haplotype file on line ";
    std::vector<std::vector<std::string>> const cases = {
        {"", "", none},
        {"rs1 1000 A G\n", "0 1\n", none},
        // The count error is checked on every line, also outside the interval.
        {"rs1 1000 A G\nrs2 2000 A G\nrs3 3000 A G\n", "0 1 1\n0 1 1\n0 1\n",
         "different number of haplotypes found in haplotype file (3 and 2 on line 3."},
        {"rs1 12000 A G\nrs2 13000 A G\n", "0 1\n0 x\n", bad + "2."},
        {"rs1 12000 A G\n", "0 1.5\n", bad + "1."},
        // Codes other than 0 and 1 would index outside the emission matrix.
        {"rs1 12000 A G\nrs2 13000 A G\n", "0 1\n2 1\n", bad + "2."},
        {"rs1 12000 A G\n", "0 -1\n", bad + "1."},
        {"rs1 12000 A G\n", "0 99999999999999999999\n", bad + "1."},
    };
    for (auto const& c : cases) {
        read(c[0], c[1]);
        EXPECT_EQ(error, "Error reading file " + hap() + ": " + c[2]) << c[0] << c[1];
    }
    // A legend with only its header: total 0, then the error.
    read("", "0 1\n", {});
    EXPECT_EQ(error, "Error reading file " + hap() + ": " + none);
    EXPECT_TRUE(contains(console, "number of haplotypes: -1\n                                   number of SNPs in total: 0\n"));

    for (std::string const file : {"-h", "-l"}) {
        data d = store_for(dir, {file, dir.file("none")});
        EXPECT_EQ(error_of([&] { d.read_haplotype_data(); }), "Error reading file " + dir.file("none") +
                                                                   (file == "-h" ? ": can't open haplotype file."
                                                                                 : ": can't open legend file."));
    }
}
