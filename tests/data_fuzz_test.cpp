// Robustness: every line reader either parses a randomly mutated line or
// throws badfilename; nothing else may happen (the sanitizer build checks
// memory as well). Seeded, so every run sees the same lines.
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "data_fixture.h"

using namespace ketra_test;

namespace {

int const kLinesPerReader = 2000;

std::string mutate(std::string line, std::mt19937& rng) {
    static std::string const alphabet = "0123456789 .-+eEnaxA\t\r,";
    static std::vector<std::string> const tokens = {"-1", "2", "1e400", "nan", "inf", "-", "x", "0.5", "1e",
                                                    "99999999999999999999", "\t", "   ", "\r", "0x1", "-0"};
    auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng); };
    for (int k = 0, edits = 1 + static_cast<int>(pick(4)); k < edits; ++k) {
        std::size_t const pos = line.empty() ? 0 : pick(line.size() + 1);
        bool const inside = pos < line.size();
        switch (pick(6)) {
        case 0: if (inside) line[pos] = alphabet[pick(alphabet.size())]; break;
        case 1: line.insert(pos, 1, alphabet[pick(alphabet.size())]); break;
        case 2: if (inside) line.erase(pos, 1 + pick(3)); break;
        case 3: line.resize(pos); break;
        case 4: if (inside) line.insert(pick(line.size() + 1), line.substr(pos, 1 + pick(8))); break;
        default: line.insert(pos, tokens[pick(tokens.size())]); break;
        }
    }
    return line;
}

struct Reader {
    std::string name;
    std::vector<std::string> bases;
    bool always_parses;  // the reader has no format error a line can reach
    std::function<void(std::string const&)> check;
};

}  // namespace

TEST(Fuzz, EveryReaderParsesOrThrowsBadfilename) {
    TempDir dir;
    LSMatrixParameters const params = parse_parameters(
        dir, {"-int", "10000", "20000", "-buffer", "1", "-sample", dir.file("study.sample"), "-exclude_samples",
              dir.file("excl.txt"), "-strand", dir.file("strand.txt")});
    auto store = [&] {
        data d = empty_store(params);
        d.map_positions = {0, 100000};
        d.map_genetic = {0, 100};
        return d;
    };
    auto read_panel = [&](std::string const& legend, std::string const& hap) {
        write_file(dir.file("ref.legend"), legend);
        write_file(dir.file("ref.hap"), hap);
        data d = store();
        d.read_haplotype_data();
        for (auto const& e : d.snps) {
            ASSERT_EQ(static_cast<int>(e.second.haplotype_alleles.size()), d.n_haplotypes);
            for (int a : e.second.haplotype_alleles) ASSERT_TRUE(a == 0 || a == 1);
        }
    };
    std::mt19937 gz_choice(5);
    std::vector<Reader> const readers = {
        {"legend", {"rs1 15000 A G", "rs_2\t12000.5\tAT\tG extra"}, false,
         [&](std::string const& line) {
             read_panel("id position a0 a1\n" + line + "\nrs9 16000 A G\n", "0 1 0 1\n1 1 0 0\n");
         }},
        {"haplotypes", {"0 1 0 1 1 0", "1\t1  0 0 1 1 "}, false,
         [&](std::string const& line) {
             read_panel("id position a0 a1\nrs1 15000 A G\nrs2 16000 A G\n", line + "\n");
         }},
        {"map", {"2000 1.2 0.5", "2500\t0\t0.75 trailing"}, true,
         [&](std::string const& line) {
             write_file(dir.file("map.txt"), "pos rate cM\n1000 0 0\n" + line + "\n3000 0 1\n");
             data d = empty_store(params);
             d.read_genetic_map();
             ASSERT_EQ(d.map_positions.size(), d.map_genetic.size());
         }},
        {"genotypes",
         {"s1 rs1 15000 A G 0.1 0.2 0.7 1 0 0 0 0.5 0.5", "s1 rs1 15000 A G 0.95 0.05 0 0 0 1 ", "a b 15000 C T"},
         false,
         [&](std::string const& line) {
             bool const gz = gz_choice() % 8 == 0;
             std::string const path = dir.file(gz ? "study.gen.gz" : "study.gen");
             (gz ? write_gz_file : write_file)(path, line + "\ns2 rs2 16000 A G 1 0 0\n");
             data d = store();
             d.parameters.genotype_file = path;
             d.snps[15000] = panel_snp("rs1", "A", "G");
             d.snps[16000] = panel_snp("rs2", "A", "G");
             d.read_genotype_data();
             for (auto const& [pos, s] : d.snps) {
                 if (s.data_type != 2) continue;
                 ASSERT_EQ(static_cast<int>(s.genotypes.size()), d.n_individuals);
                 ASSERT_EQ(s.genotype_probs.size(), s.genotypes.size());
                 for (auto const& t : s.genotype_probs) ASSERT_EQ(t.size(), 3u);
                 for (int c : s.genotypes) ASSERT_TRUE(c >= 0 && c <= 3);
             }
         }},
        {"strand", {"15000 -", "16000\t+ extra"}, true,
         [&](std::string const& line) {
             write_file(dir.file("strand.txt"), line + "\n");
             data d = store();
             d.snps[15000] = panel_snp("rs1", "A", "G");
             d.snps[15000].data_type = 2;
             d.read_strand_data();
             d.n_haplotypes = 2;
             d.n_individuals = 0;
             d.setup();
         }},
        {"samples", {"f0 i0 0", "f0\ti0"}, false,
         [&](std::string const& line) {
             write_file(dir.file("excl.txt"), "i0 f1 x\n");
             write_file(dir.file("study.sample"), "ID_1 ID_2 missing\n0 0 0\n" + line + "\nf1 i1 0\n");
             data d = store();
             d.n_individuals = 2;
             snp& s = d.snps[15000] = panel_snp("rs1", "A", "G");
             s.genotypes = {0, 1};
             s.genotype_probs = {{1, 0, 0}, {0, 1, 0}};
             d.apply_sample_exclusions();
             ASSERT_GE(d.n_individuals, 0);
             ASSERT_EQ(static_cast<int>(s.genotypes.size()), d.n_individuals);
             ASSERT_EQ(static_cast<int>(s.genotype_probs.size()), d.n_individuals);
         }},
    };
    unsigned seed = 11;
    for (auto const& reader : readers) {
        SCOPED_TRACE(reader.name);
        std::mt19937 rng(seed++);
        int parsed = 0;
        CoutCapture capture;
        for (int i = 0; i < kLinesPerReader && !HasFailure(); ++i) {
            std::string const line = mutate(reader.bases[i % reader.bases.size()], rng);
            try {
                reader.check(line);
                ++parsed;
            } catch (badfilename const&) {
            } catch (std::exception const& e) {
                ADD_FAILURE() << "line '" << line << "' threw " << e.what();
            } catch (...) {
                ADD_FAILURE() << "line '" << line << "' threw something other than badfilename";
            }
        }
        if (reader.always_parses) EXPECT_EQ(parsed, kLinesPerReader);
        else EXPECT_GT(parsed, 0);
    }
}
