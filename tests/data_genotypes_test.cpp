// The genotype-probability reader, on plain and gzip files.
#include <cmath>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// Parameter: whether the genotype file is gzip-compressed (and named .gz).
struct Genotypes : ::testing::TestWithParam<bool> {
    TempDir dir;
    std::string console;

    std::string path() const { return dir.file(GetParam() ? "study.gen.gz" : "study.gen"); }

    // A store whose panel holds SNPs at 9000, 12000, 15000, 21000 and 25000;
    // -int 10000 20000 -buffer 1 widens the interval to [9000, 21000].
    data store(std::string const& content, std::vector<std::string> extra = {}) {
        (GetParam() ? write_gz_file : write_file)(path(), content);
        extra.insert(extra.end(), {"-int", "10000", "20000", "-buffer", "1", "-g", path()});
        data d = store_for(dir, extra);
        for (int pos : {9000, 12000, 15000, 21000, 25000}) {
            bool const ct = pos == 15000;
            d.snps[pos] = panel_snp("rs" + std::to_string(pos / 1000), ct ? "C" : "A", ct ? "T" : "G");
        }
        return d;
    }
    data read(std::string const& content, std::vector<std::string> extra = {}) {
        data d = store(content, extra);
        console = quietly([&] { d.read_genotype_data(); });
        return d;
    }
    std::string error(std::string const& content) {
        data d = store(content);
        return error_of([&] { d.read_genotype_data(); });
    }
    std::string prefix() const { return "Error reading file " + path() + ": "; }
};

std::string const kSnpFormat = "Genotype file do not have SNP information in right format on line ";
std::string const kGenoFormat = "Genotype file do not have the genotype information in right format on line ";

}  // namespace

TEST_P(Genotypes, StoresProbabilitiesCallsAndFrequency) {
    data d = read(
        "s12 rs12 12000 A G 0.95 0.05 0 0 1 0 0 0.1 0.9 0.3 0.3 0.4\r\n"
        "s15 other 15000 C T 0.5 0.5 0 0.2 0.2 0.6 0 0 1 0.1 0.1 0.8\r\n");
    snp const& s = d.snps.at(12000);
    EXPECT_EQ(s.snp_id, "s12");
    EXPECT_EQ(s.genotype_allele_a, "A");
    EXPECT_EQ(s.genotype_allele_b, "G");
    EXPECT_EQ(s.data_type, 2);
    ASSERT_EQ(s.genotype_probs.size(), 4u);
    EXPECT_EQ(s.genotype_probs[2], (std::vector<double>{0, 0.1, 0.9}));
    EXPECT_EQ(s.genotypes, (std::vector<int>{0, 1, 2, 3}));  // 0.9 >= 0.9 is called
    EXPECT_EQ(d.snps.at(15000).genotypes, (std::vector<int>{3, 3, 2, 3}));  // CR stripped: last triple whole
    EXPECT_DOUBLE_EQ(s.genotype_frequency, 3.0 / 6.0);
    EXPECT_EQ(d.n_individuals, 4);
    // Untouched panel SNPs keep their placeholders.
    EXPECT_EQ(d.snps.at(9000).data_type, 1);
    EXPECT_EQ(d.snps.at(9000).snp_id, "---");
    // A differing rs number is only a warning.
    std::string const open = GetParam() ? "reading gzip file in gzip mode ... " : "";
    EXPECT_EQ(console,
              "\nReading genotype file ... " + open + "rs #'s don't agree : rs15 other\ndone\n"
              "                    number of individuals in genotype file: 4\n"
              "            number of SNPs in interval with haplotype data: 2\n"
              "\n");
}

TEST_P(Genotypes, CallThresholdAndTies) {
    data d = read("s12 rs12 12000 A G 0.8999 0.1001 0 0.5 0.5 0 0.2 0.4 0.4 0.3 0.3 0.3\n");
    EXPECT_EQ(d.snps.at(12000).genotypes, (std::vector<int>{3, 3, 3, 3}));
    EXPECT_TRUE(std::isnan(d.snps.at(12000).genotype_frequency));  // nobody called

    d = read("s12 rs12 12000 A G 0.5 0.5 0 0.2 0.4 0.4 0.3 0.3 0.3\n", {"-call_thresh", "0.3"});
    EXPECT_EQ(d.snps.at(12000).genotypes, (std::vector<int>{0, 1, 0}));  // ties: lowest index
    EXPECT_DOUBLE_EQ(d.snps.at(12000).genotype_frequency, 1.0 / 6.0);
}

TEST_P(Genotypes, IntervalBoundsAreInclusiveAndReadingStopsBeyond) {
    data d = read(
        "x rs 1000 A\n"                // outside the table: not parsed
        "a rs0 8999 A G 1 0 0\n"
        "b rs9 9000 A G 1 0 0\n"
        "c rs13 13000 A G 0.1 what\n"  // not in the panel: dropped silently
        "d rs21 21000 A G 1 0 0\n"
        "e rs25 25000 A G 1 0 0\n"
        "f rs12 12000 A G 1 0 0\n");  // after the first line beyond: never read
    EXPECT_EQ(d.snps.at(9000).data_type, 2);
    EXPECT_EQ(d.snps.at(21000).data_type, 2);
    EXPECT_EQ(d.snps.at(25000).data_type, 1);
    EXPECT_EQ(d.snps.at(12000).data_type, 1);
    EXPECT_EQ(d.snps.count(13000), 0u);
    EXPECT_TRUE(contains(console, "number of SNPs in interval with haplotype data: 2\n"));
}

TEST_P(Genotypes, LineEndingsAndErrors) {
    // Trailing blanks add no individual; a lone number at the very end is ignored.
    data d = read("s12 rs12 12000 A G 1 0 0 0 1 0   \t \ns15 rs15 15000 C T 1 0 0 0 1 0 7\n");
    EXPECT_EQ(d.n_individuals, 2);
    EXPECT_EQ(d.snps.at(15000).genotype_probs.size(), 2u);
    EXPECT_EQ(d.snps.at(15000).genotypes, (std::vector<int>{0, 1}));
    // With a blank after allele B the line simply has no individuals.
    d = read("s12 rs12 12000 A G \n");
    EXPECT_EQ(d.n_individuals, 0);
    EXPECT_EQ(d.snps.at(12000).data_type, 2);

    std::string const ten = " 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0 1 0 0";
    std::vector<std::pair<std::string, std::string>> const cases = {
        // The lone number followed by a blank is a cut-short triple.
        {"s12 rs12 12000 A G 1 0 0 7 \n", kGenoFormat + "1"},
        {"s12 rs12 12000 A G 1 0 0 7 0\n", kGenoFormat + "1"},
        {"s12 rs12 12000 A G 1 0 0 0 x 0\n", kGenoFormat + "1"},
        {"s12 rs12 12000 A G nan 0 0\n", kGenoFormat + "1"},
        // A line ending right after allele B, or missing it.
        {"s9 rs9 9000 A G 1 0 0\ns12 rs12 12000 A G\n", kSnpFormat + "2"},
        {"s12 rs12 12000 A\n", kSnpFormat + "1"},
        {"a rs9 9000 A G" + ten + "\nskipped rs 13000 A G\nb rs12 12000 A G" + ten + " 1 0 0\n",
         "Genotype file have different individuals 10 and 11 on lines 3 and 2"},
    };
    for (auto const& [content, message] : cases) EXPECT_EQ(error(content), prefix() + message) << content;

    data none = store_for(dir, {"-g", path()});
    boost::filesystem::remove(path());
    EXPECT_EQ(error_of([&] { none.read_genotype_data(); }), prefix() + " can't opened file.");
}

INSTANTIATE_TEST_SUITE_P(PlainAndGzip, Genotypes, ::testing::Values(false, true),
                         [](::testing::TestParamInfo<bool> const& info) { return info.param ? "gzip" : "plain"; });

TEST(GenotypeCompression, ChosenByNameOnly) {
    TempDir dir;
    // gzip bytes under a plain name are read as text: nothing usable in them;
    // plain text under a .gz name goes through the decompressor, which rejects it.
    write_gz_file(dir.file("study.txt"), "s12 rs12 12000 A G 1 0 0\n");
    write_file(dir.file("plain.gz"), "s12 rs12 12000 A G 1 0 0\n");
    for (std::string const name : {"study.txt", "plain.gz"}) {
        data d = store_for(dir, {"-int", "10000", "20000", "-g", dir.file(name)});
        d.snps[12000] = panel_snp("rs12", "A", "G");
        std::string error;
        std::string const out = quietly([&] {
            try {
                d.read_genotype_data();
            } catch (badfilename const& e) {
                error = e.what();
            }
        });
        EXPECT_EQ(error, name == "plain.gz" ? "Error reading file " + dir.file(name) + ": not in gzip format." : "");
        EXPECT_EQ(d.snps.at(12000).data_type, 1) << name;
        EXPECT_EQ(contains(out, "reading gzip file in gzip mode ... "), name == "plain.gz");
        if (name == "study.txt") {
            EXPECT_EQ(d.n_individuals, -1);
        }
    }
}
