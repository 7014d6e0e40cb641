// Sample exclusions, SNP exclusion lists and the SNP information file.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

// A record with genotypes for n individuals: individual i called i % 4, with
// its own index in probability column 0.
snp with_individuals(int n, std::string const& rs = "rs") {
    snp s = panel_snp(rs, "A", "G");
    for (int i = 0; i < n; ++i) {
        s.genotypes.push_back(i % 4);
        s.genotype_probs.push_back({double(i), 0.0, 0.0});
    }
    s.data_type = 2;
    return s;
}

struct Samples : ::testing::Test {
    TempDir dir;
    std::string const rows = "f0 i0 0\nf1 i1 0\nf2 i2 0\nf3 i3 0\nf4 i4 0\n";
    data store(std::string const& sample_rows, std::string const& excluded) {
        write_file(dir.file("study.sample"), "ID_1 ID_2 missing\n0 0 0\n" + sample_rows);
        write_file(dir.file("excl.txt"), excluded);
        data d = store_for(dir, {"-sample", dir.file("study.sample"), "-exclude_samples", dir.file("excl.txt")});
        d.n_individuals = 5;
        d.snps[100] = d.snps[200] = with_individuals(5);
        return d;
    }
};

}  // namespace

TEST_F(Samples, RemovesNamedIndividualsOnce) {
    // i3 is the second id of line 3; f1 and i1 name the same individual; "zz" is unknown.
    data d = store(rows, "i3 f1\nzz i1\n");
    std::string const console = quietly([&] { d.apply_sample_exclusions(); });
    EXPECT_EQ(d.n_individuals, 3);
    EXPECT_EQ(d.excluded_sample_ids, (std::vector<std::string>{"i3", "f1", "zz", "i1"}));
    for (double pos : {100.0, 200.0}) {
        std::vector<double> left;
        for (auto const& t : d.snps[pos].genotype_probs) left.push_back(t[0]);
        EXPECT_EQ(left, (std::vector<double>{0, 2, 4}));
        EXPECT_EQ(d.snps[pos].genotypes, (std::vector<int>{0, 2, 0}));
    }
    EXPECT_EQ(d.sample_index.at("f4"), 4);  // indices are not renumbered
    EXPECT_EQ(d.sample_index.at("i4"), 4);
    EXPECT_EQ(console,
              "Reading sample file ... done\n"
              "Reading sample exclusion file ... done\n"
              "                    number of ids in sample exclusion list: 4\n"
              "Applying sample filters ... done\n"
              "              number of excluded sample ids in sample file: 2\n"
              "            number of individuals remaining for clustering: 3\n"
              "\n");
}

TEST_F(Samples, EmptyExclusionFileAndExcludingEveryone) {
    data d = store(rows, "");
    EXPECT_TRUE(contains(quietly([&] { d.apply_sample_exclusions(); }),
                         "number of excluded sample ids in sample file: 0\n"));
    EXPECT_EQ(d.n_individuals, 5);

    data all = store(rows, "f0 f1 f2 f3 f4");
    quietly([&] { all.apply_sample_exclusions(); });
    EXPECT_EQ(all.n_individuals, 0);
    EXPECT_TRUE(all.snps[100].genotypes.empty());
    EXPECT_TRUE(all.snps[100].genotype_probs.empty());
}

TEST_F(Samples, Errors) {
    data d = store(rows + "f5 i5 0\n", "f0");
    EXPECT_EQ(error_of([&] { d.apply_sample_exclusions(); }),
              "Error reading file " + dir.file("study.sample") + ": sample file contains wrong number of individuals.");
    // The exclusion file's open error reuses the sample file's text.
    for (bool exclusion_file : {true, false}) {
        data e = store(rows, "f0");
        (exclusion_file ? e.parameters.exclude_samples_file : e.parameters.sample_file) = dir.file("none");
        EXPECT_EQ(error_of([&] { e.apply_sample_exclusions(); }),
                  "Error reading file " + dir.file("none") + ": can't open sample file.");
    }
}

namespace {

struct SnpLists : ::testing::Test {
    TempDir dir;
    std::string console;
    data read(std::vector<std::string> files) {
        std::vector<std::string> args = {"-exclude_snps"};
        for (auto const& f : files) args.push_back(dir.file(f));
        data d = store_for(dir, args);
        console = quietly([&] { d.read_exclusion_list(); });
        return d;
    }
    std::string block(std::string const& name, int n) {
        return "Reading snps exclusion list " + dir.file(name) + "\n -" + dir.file(name) + "[" + std::to_string(n) +
               " SNP ids read in]\n";
    }
};

}  // namespace

TEST_F(SnpLists, SeveralFilesMissingOnesSkipped) {
    write_file(dir.file("a.txt"), "rs1 rs2\nrs1\n");
    write_file(dir.file("b.txt"), "rs2\trs1 id7");
    write_file(dir.file("empty.txt"), "");
    data d = read({"missing.txt", "a.txt", "b.txt", "empty.txt"});
    EXPECT_EQ(d.excluded_snp_ids, (std::set<std::string>{"rs1", "rs2", "id7"}));
    EXPECT_EQ(console, "\n" + block("a.txt", 3) + block("b.txt", 3) + block("empty.txt", 0) +
                           "In total 3 unique SNP ID's read in\n");
}

TEST_F(SnpLists, UnopenableFileEndsTheReading) {
    write_file(dir.file("a.txt"), "rs1\n");
    write_file(dir.file("c.txt"), "rs3\n");
    // A socket exists but cannot be opened for reading, even by root.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(dir.file("s").size(), sizeof(addr.sun_path));
    std::strcpy(addr.sun_path, dir.file("s").c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
    data d = read({"a.txt", "s", "c.txt"});
    EXPECT_EQ(d.excluded_snp_ids, (std::set<std::string>{"rs1"}));
    EXPECT_EQ(console, "\n" + block("a.txt", 1) + "Reading snps exclusion list " + dir.file("s") +
                           "\nWarning: can't open exclusion list file: " + dir.file("s") + "\nNo SNPs excluded\n");
}

TEST_F(SnpLists, NoListGiven) {
    data d = store_for(dir);
    EXPECT_EQ(quietly([&] { d.read_exclusion_list(); }),
              "WARNING!! No exclusion list given, so all SNPs will be used for inference.\n\n");
    read({});  // "-exclude_snps" with no file: the flag was seen, nothing is read
    EXPECT_EQ(console, "\nIn total 0 unique SNP ID's read in\n");
}

TEST(SnpRemoval, OneRecordPerIdentifier) {
    data d;
    d.snps[10] = d.snps[20] = panel_snp("rsA", "A", "G");
    d.snps[30] = panel_snp("rsB", "A", "G");
    d.snps[30].snp_id = "idB";
    d.snps[40] = panel_snp("rsC", "A", "G");
    d.excluded_snp_ids = {"rsA", "idB", "nothing"};
    EXPECT_EQ(d.remove_excluded_snps(), 2);
    EXPECT_EQ(d.snps.size(), 2u);
    EXPECT_EQ(d.snps.count(20), 1u);  // the second rsA stays
    EXPECT_EQ(d.snps.count(40), 1u);
}

TEST(SnpInfo, FixedPointLinesNoIndividualsAndUnwritableFile) {
    std::ostringstream nan;  // 0/0 prints as the stream prints a not-a-number value
    nan << std::fixed << 0.5 * 0.0 / std::atof("0");
    TempDir dir;
    data d = store_for(dir, {"-o", dir.file("out/run")});
    snp s = with_individuals(6, "rs1");  // codes 0 1 2 3 0 1
    s.snp_id = "id1";
    s.hap_frequency = 0.25;
    d.snps[1234567] = s;
    snp missing = panel_snp("rs2", "A", "G", 1.0 / 3);
    missing.genotypes = {3, 3};
    missing.strand = "f";
    d.snps[2000000.5] = missing;
    std::string const file = dir.file("out/run.snp_info.txt");
    EXPECT_EQ(quietly([&] { d.output_snp_info(); }), "Outputing snp information to file " + file + " ... done\n");
    EXPECT_EQ(read_file(file), "id1 rs1 1234567.000000 0.250000 * 2 2 1 1 0.400000 0 1 2 3 0 1 \n"
                               "--- rs2 2000000.500000 0.333333 f 0 0 0 2 " + nan.str() + " 3 3 \n");

    data none = store_for(dir, {"-o", dir.file("run")});  // no individuals: the line ends after field 10
    none.snps[5] = panel_snp("rs5", "A", "G");
    none.snps[5].snp_id = "x";
    quietly([&] { none.output_snp_info(); });
    EXPECT_EQ(read_file(dir.file("run.snp_info.txt")), "x rs5 5.000000 0.500000 * 0 0 0 0 " + nan.str() + " \n");

    none.parameters.output_file = dir.file("no/such/dir/run");
    EXPECT_EQ(error_of([&] { none.output_snp_info(); }),
              "Error reading file " + dir.file("no/such/dir/run") + "snp_info.txt: can't open file");
}
