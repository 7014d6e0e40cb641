// End-to-end runs of the built program on small data sets, compared with
// expected output kept under tests/data/small/expected/<case>/: stdout.txt
// (timing masked) and every file the run writes, byte for byte (gzip files as
// their decompressed text, named <file>.unzipped).
//
// To regenerate the expected files after an intended change of output:
//     KETRA_UPDATE_GOLDEN=1 ctest -R E2e
// then review the diff before committing it. Besides the byte comparison, every
// case checks the shape and arithmetic of its files (line sums, separators,
// probabilities that add up), so a regenerated file that went wrong still fails.
#include <gtest/gtest.h>

#include <zlib.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "support/test_support.h"

namespace fs = boost::filesystem;
using ketra_test::read_file;
using ketra_test::run_ketra;
using ketra_test::TempDir;
using ketra_test::write_file;

namespace {

int const K = 4;  // haplotypes of the small panel
int const N = 3;  // individuals of the small genotype file

fs::path small_dir() { return fs::path(ketra_test::source_dir()) / "tests" / "data" / "small"; }
fs::path expected_root() { return small_dir() / "expected"; }

bool updating_golden() {
    char const* value = std::getenv("KETRA_UPDATE_GOLDEN");
    return value != nullptr && std::string(value) == "1";
}

void copy_inputs(fs::path const& from, TempDir const& dir) {
    for (auto const& entry : fs::directory_iterator(from))
        if (fs::is_regular_file(entry.path())) fs::copy_file(entry.path(), dir.path() / entry.path().filename());
}

std::vector<std::string> small_args(std::string const& output) {
    return {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", "study.gen", "-tree_file", "trees.txt",
            "-int", "900", "2000", "-buffer", "0", "-o", output};
}

std::vector<std::string> plus(std::vector<std::string> args, std::vector<std::string> const& more) {
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

void replace_all(std::string& text, std::string const& from, std::string const& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// The echoed command line starts with the binary's path, which depends on the build folder.
std::string normalise(std::string text) {
    replace_all(text, KETRA_BINARY, "ketra");
    return ketra_test::mask_timing(text);
}

// Removes the line that echoes the command line (it differs between runs that
// differ only in their options, such as -threads).
std::string drop_command_line(std::string text) {
    std::string const label = "Command line output is:\n";
    for (std::size_t at = text.find(label); at != std::string::npos; at = text.find(label, at + label.size())) {
        std::size_t const start = at + label.size();
        std::size_t const end = text.find('\n', start);
        text.erase(start, end == std::string::npos ? std::string::npos : end + 1 - start);
    }
    return text;
}

bool ends_with(std::string const& text, std::string const& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Decompresses a file that must hold exactly one complete gzip member with the
// default header (no name, no comment); fails the test otherwise.
std::string read_strict_gzip(std::string const& path) {
    std::string const raw = read_file(path);
    EXPECT_GE(raw.size(), 18u) << path;
    if (raw.size() < 18) return "";
    EXPECT_EQ(static_cast<unsigned char>(raw[0]), 0x1f) << path;
    EXPECT_EQ(static_cast<unsigned char>(raw[1]), 0x8b) << path;
    EXPECT_EQ(raw[2], 8) << "deflate " << path;
    EXPECT_EQ(raw[3], 0) << "header flags " << path;

    z_stream z{};
    EXPECT_EQ(inflateInit2(&z, 15 + 16), Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(raw.data()));
    z.avail_in = static_cast<uInt>(raw.size());
    std::string text;
    char buffer[4096];
    int status = Z_OK;
    while (status == Z_OK) {
        z.next_out = reinterpret_cast<Bytef*>(buffer);
        z.avail_out = sizeof buffer;
        status = inflate(&z, Z_NO_FLUSH);
        text.append(buffer, sizeof buffer - z.avail_out);
    }
    EXPECT_EQ(status, Z_STREAM_END) << "incomplete gzip stream " << path;
    EXPECT_EQ(z.avail_in, 0u) << "bytes after the gzip stream " << path;
    inflateEnd(&z);
    // The shared reader must agree.
    EXPECT_EQ(ketra_test::read_gz_file(path), text);
    return text;
}

// Every file under `folder` (recursively), keyed by its path relative to it;
// .gz files decompressed and keyed as <name>.unzipped. Only the .aux file
// echoes the command line.
std::map<std::string, std::string> collect_files(fs::path const& folder) {
    std::map<std::string, std::string> files;
    for (auto it = fs::recursive_directory_iterator(folder); it != fs::recursive_directory_iterator(); ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        std::string const name = it->path().lexically_relative(folder).generic_string();
        if (it->path().extension() == ".gz")
            files[name + ".unzipped"] = read_strict_gzip(it->path().string());
        else if (it->path().extension() == ".aux")
            files[name] = normalise(read_file(it->path().string()));
        else
            files[name] = read_file(it->path().string());
    }
    return files;
}

// Compares a run's stdout and output files with the expected files of `name`,
// or writes them when regenerating. Without stdout_text only the files are kept.
void check_golden(std::string const& name, std::string const* stdout_text,
                  std::map<std::string, std::string> const& files) {
    fs::path const folder = expected_root() / name;
    std::map<std::string, std::string> actual = files;
    if (stdout_text) actual["stdout.txt"] = normalise(*stdout_text);
    if (updating_golden()) {
        fs::remove_all(folder);
        for (auto const& f : actual) {
            fs::create_directories((folder / f.first).parent_path());
            write_file((folder / f.first).string(), f.second);
        }
        return;
    }
    ASSERT_TRUE(fs::is_directory(folder)) << "no expected output for " << name << "; run with KETRA_UPDATE_GOLDEN=1";
    std::map<std::string, std::string> const expected = collect_files(folder);
    for (auto const& f : expected) {
        auto const found = actual.find(f.first);
        if (found == actual.end()) {
            ADD_FAILURE() << name << ": the run did not write " << f.first;
            continue;
        }
        EXPECT_EQ(found->second, f.second) << name << ": " << f.first << " differs";
    }
    for (auto const& f : actual)
        EXPECT_TRUE(expected.count(f.first)) << name << ": unexpected output file " << f.first;
}

std::vector<std::string> split_lines(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<double> numbers_of(std::string const& text) {
    std::istringstream in(text);
    std::vector<double> values;
    for (std::string word; in >> word;) values.push_back(std::stod(word));
    return values;
}

// Checks the matrix file's lines: "<position> v, v, ..., v;" with k values
// summing to n, and returns the values of each line.
std::vector<std::vector<double>> check_matrix_file(std::string const& text, int k, int n, std::size_t lines) {
    std::vector<std::vector<double>> rows;
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    for (std::string const& line : split_lines(text)) {
        std::size_t const blank = line.find(' ');
        EXPECT_NE(blank, std::string::npos) << line;
        if (blank == std::string::npos) continue;
        std::string values = line.substr(blank + 1);
        EXPECT_TRUE(ends_with(values, ";")) << line;
        std::size_t separators = 0;
        for (std::size_t at = values.find(", "); at != std::string::npos; at = values.find(", ", at + 2)) ++separators;
        EXPECT_EQ(separators, static_cast<std::size_t>(k - 1)) << line;
        replace_all(values, ",", " ");
        replace_all(values, ";", " ");
        std::vector<double> const row = numbers_of(values);
        EXPECT_EQ(row.size(), static_cast<std::size_t>(k)) << line;
        double sum = 0;
        for (double v : row) {
            EXPECT_GE(v, 0.0) << line;
            sum += v;
        }
        EXPECT_NEAR(sum, n, 1e-6) << line;
        rows.push_back(row);
    }
    EXPECT_EQ(rows.size(), lines);
    return rows;
}

// A pair posterior read back from a .full_matrix block: lower triangle, row i of i + 1 values.
using Triangle = std::vector<std::vector<double>>;

double pair(Triangle const& p, int a, int b) { return a >= b ? p[a][b] : p[b][a]; }

// Checks a .full_matrix file (blocks of k lines, line i with i + 1 values each
// followed by a blank, then two empty lines) and returns its blocks.
std::vector<Triangle> check_full_matrix(std::string const& text, int k) {
    std::vector<Triangle> blocks;
    std::vector<std::string> const lines = split_lines(text);
    EXPECT_TRUE(ends_with(text, " \n\n\n"));
    EXPECT_EQ(lines.size() % (k + 2), 0u);
    for (std::size_t start = 0; start + k + 2 <= lines.size(); start += k + 2) {
        Triangle p;
        double total = 0;
        for (int i = 0; i < k; ++i) {
            std::string const& line = lines[start + i];
            EXPECT_TRUE(ends_with(line, " ")) << line;
            p.push_back(numbers_of(line));
            EXPECT_EQ(p.back().size(), static_cast<std::size_t>(i + 1)) << line;
            p.back().resize(i + 1);
            for (int j = 0; j <= i; ++j) total += (j < i ? 2 : 1) * p[i][j];
        }
        EXPECT_EQ(lines[start + k], "");
        EXPECT_EQ(lines[start + k + 1], "");
        EXPECT_NEAR(total, 1.0, 1e-5);
        blocks.push_back(p);
    }
    return blocks;
}

// Checks a pardo file: "<node> <length> <position> A T" and three
// probabilities per individual that lie in [0, 1] and add up to 1. A leaf's
// branch is compared with the individual's pair posterior when it is known.
// Returns the position as the file writes it (the same on every line).
std::string check_pardo(std::string const& text, std::string const& position, int n, int k,
                        std::vector<Triangle> const& posteriors) {
    std::string seen;
    std::vector<std::string> const lines = split_lines(text);
    EXPECT_FALSE(lines.empty());
    for (std::string const& line : lines) {
        std::istringstream in(line);
        int node = -1;
        double length = 0;
        std::string at, a, t;
        in >> node >> length >> at >> a >> t;
        if (seen.empty()) seen = at;
        EXPECT_EQ(at, position.empty() ? seen : position) << line;
        EXPECT_EQ(a, "A");
        EXPECT_EQ(t, "T");
        EXPECT_GT(length, 0.0) << line;
        EXPECT_TRUE(ends_with(line, " ")) << line;
        std::vector<double> values;
        for (double v; in >> v;) values.push_back(v);
        EXPECT_EQ(values.size(), static_cast<std::size_t>(3 * n)) << line;
        if (values.size() != static_cast<std::size_t>(3 * n)) continue;
        for (int i = 0; i < n; ++i) {
            double const both = values[3 * i], one = values[3 * i + 1], none = values[3 * i + 2];
            for (double v : {both, one, none}) {
                EXPECT_GE(v, -1e-12) << line;
                EXPECT_LE(v, 1 + 1e-12) << line;
            }
            EXPECT_NEAR(both + one + none, 1.0, 2e-6) << line;
            if (node < k && static_cast<std::size_t>(i) < posteriors.size()) {
                Triangle const& p = posteriors[i];
                double outside = 0;
                for (int j = 0; j < k; ++j)
                    if (j != node) outside += 2 * pair(p, node, j);
                EXPECT_NEAR(both, p[node][node], 1e-6) << line;
                EXPECT_NEAR(one, outside, 1e-5) << line;
            }
        }
    }
    return seen;
}

std::string const closing =
    "Ketra took X seconds to complete.\n\n\n"
    "Ketra complete! Please run Ovrin once you have ran Ketra on all your case and control genotype data.\n";

std::string const ignored_999 = "position 999 ignored: no genotype or reference haplotype information\n";
std::string const ignored_1901 = "position 1901 ignored: no genotype or reference haplotype information\n";

// Positions of the small tree file inside the SNP range, as the matrix file
// writes them, and as the file names write them.
std::vector<std::string> const small_positions = {"1000", "1175.5", "1250", "1600", "1900"};
std::vector<std::string> const small_names = {"1000", "1176", "1250", "1600", "1900"};

// Checks the outputs of a run of the small data set with -print_matrix and
// -tavlo_input: the matrix lines, each individual's pair posterior against
// the matrix sums and the pardo file, and the files' count.
void check_small_run(std::map<std::string, std::string> const& files) {
    auto const rows = check_matrix_file(files.at("run"), K, N, small_positions.size());
    std::vector<std::string> const lines = split_lines(files.at("run"));
    for (std::size_t p = 0; p < small_positions.size() && p < lines.size(); ++p) {
        EXPECT_EQ(lines[p].substr(0, lines[p].find(' ')), small_positions[p]);
        std::string const base = "run." + small_names[p];
        ASSERT_TRUE(files.count(base + ".full_matrix")) << base;
        ASSERT_TRUE(files.count(base + ".pardo")) << base;
        std::vector<Triangle> const blocks = check_full_matrix(files.at(base + ".full_matrix"), K);
        ASSERT_EQ(blocks.size(), static_cast<std::size_t>(N));
        // The matrix line is the sum over individuals of m[k] = sum_j P(k, j).
        for (int k = 0; k < K; ++k) {
            double m = 0;
            for (Triangle const& b : blocks)
                for (int j = 0; j < K; ++j) m += pair(b, k, j);
            EXPECT_NEAR(m, rows[p][k], 2e-5) << small_positions[p] << " haplotype " << k;
        }
        check_pardo(files.at(base + ".pardo"), small_positions[p], N, K, blocks);
    }
}

}  // namespace

// Everything switched on: matrix, .full_matrix, pardo, details, snp_info; tree
// positions one base pair outside the SNPs are skipped into the .aux file.
TEST(E2eSmall, AllOutputsMatchExpectedFiles) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    auto const args = plus(small_args("out/run"), {"-tavlo_input", "-print_matrix", "-detail", "-snp_info"});
    auto const r = run_ketra(args, dir.path().string());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    std::string const out = normalise(r.out);
    EXPECT_TRUE(ends_with(out, "\n\nwriting matrix file ... done\n\nfinished\n" + closing));
    EXPECT_NE(out.find("\r[" + std::string(60, '*') + "]         3/3"), std::string::npos);

    auto const files = collect_files(dir.path() / "out");
    check_golden("all_outputs", &r.out, files);
    check_small_run(files);
    EXPECT_TRUE(ends_with(files.at("run.aux"), "\n" + ignored_999 + ignored_1901));
    // The details are accumulated but never written.
    for (auto const& f : files) EXPECT_EQ(f.first.find(".details"), std::string::npos) << f.first;
    EXPECT_EQ(files.size(), 13u);  // matrix, .aux, snp_info, 5 x (.full_matrix, .pardo)

    // A second run into the same folder starts each selected position's
    // .full_matrix afresh instead of appending; a file of a skipped position
    // is left alone.
    write_file(dir.file("out/run.999.full_matrix"), "kept\n");
    write_file(dir.file("out/run.1000.full_matrix"), "stale\n");
    auto const again = run_ketra(args, dir.path().string());
    EXPECT_EQ(again.status, 0);
    auto second = collect_files(dir.path() / "out");
    EXPECT_EQ(second["run.999.full_matrix"], "kept\n");
    second.erase("run.999.full_matrix");
    EXPECT_EQ(second, files);
}

// The same run with several threads gives the same bytes, stdout included.
TEST(E2eSmall, ThreadCountDoesNotChangeAnyOutput) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    auto const base = plus(small_args("out/run"), {"-tavlo_input", "-print_matrix", "-detail", "-snp_info"});
    std::string reference_out;
    std::map<std::string, std::string> reference_files;
    for (std::string threads : {"1", "2", "3", "5"}) {
        SCOPED_TRACE("-threads " + threads);
        fs::remove_all(dir.path() / "out");
        auto const r = run_ketra(plus(base, {"-threads", threads}), dir.path().string());
        EXPECT_EQ(r.status, 0);
        std::string const out = drop_command_line(normalise(r.out));
        auto files = collect_files(dir.path() / "out");
        for (auto& f : files) f.second = drop_command_line(f.second);
        if (threads == "1") {
            reference_out = out;
            reference_files = files;
            check_small_run(files);
            continue;
        }
        EXPECT_EQ(out, reference_out);
        EXPECT_EQ(files, reference_files);
    }
}

// A matrix name ending in .gz is written as one complete gzip stream; .gzip is
// only a name, written as plain text with the same content.
TEST(E2eSmall, GzipMatrixFileOnlyForGzExtension) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    auto const r = run_ketra(small_args("out/run.txt.gz"), dir.path().string());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(normalise(r.out).find("\n\nwriting matrix file in gzip mode ... done\n\nfinished\n" + closing),
              std::string::npos);
    auto const files = collect_files(dir.path() / "out");
    check_golden("gzip_matrix", &r.out, files);
    ASSERT_TRUE(files.count("run.txt.gz.unzipped"));
    std::string const text = files.at("run.txt.gz.unzipped");
    check_matrix_file(text, K, N, small_positions.size());

    auto const plain = run_ketra(small_args("out/run.gzip"), dir.path().string());
    EXPECT_EQ(plain.status, 0);
    EXPECT_NE(plain.out.find("\n\nwriting matrix file ... done\n"), std::string::npos);
    EXPECT_EQ(read_file(dir.file("out/run.gzip")), text);
}

// No tree position lies within the SNPs: an empty matrix file, still a valid
// gzip stream, and both positions logged to the .aux file.
TEST(E2eSmall, NoSelectedPositionGivesAnEmptyGzipStream) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    write_file(dir.file("trees.txt"), "999 0;4;1 2,3 4,5 6;\n1901 0;4;1 2,3 4,5 6;\n");
    auto const r = run_ketra(plus(small_args("out/run.gz"), {"-tavlo_input", "-print_matrix"}), dir.path().string());
    EXPECT_EQ(r.status, 0);
    auto const files = collect_files(dir.path() / "out");
    check_golden("no_position", &r.out, files);
    EXPECT_EQ(files.at("run.gz.unzipped"), "");
    EXPECT_TRUE(ends_with(files.at("run.gz.aux"), "\n" + ignored_999 + ignored_1901));
    EXPECT_EQ(files.size(), 2u);
}

// The first matrix line's position is written with 6 significant digits,
// later ones with 10. Positions whose rounded names coincide share their
// .full_matrix file (blocks in individual order, both positions per
// individual), and the higher one's pardo file replaces the lower one's.
TEST(E2eSmall, PositionPrecisionAndSharedFileNames) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    write_file(dir.file("trees.txt"),
               "1100.2345678 0;4;1 2,3 4,5 6;\n1100.4 0;4;1 3,2 4,5 6;\n1400.98765432 0;4;1 4,2 3,5 6;\n");
    auto const r = run_ketra(plus(small_args("out/run"), {"-tavlo_input", "-print_matrix"}), dir.path().string());
    EXPECT_EQ(r.status, 0);
    auto const files = collect_files(dir.path() / "out");
    check_golden("shared_names", &r.out, files);

    std::vector<std::string> const lines = split_lines(files.at("run"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(0, 8), "1100.23 ");
    EXPECT_EQ(lines[1].substr(0, 7), "1100.4 ");
    EXPECT_EQ(lines[2].substr(0, 12), "1400.987654 ");
    check_matrix_file(files.at("run"), K, N, 3);

    EXPECT_EQ(check_full_matrix(files.at("run.1100.full_matrix"), K).size(), 2u * N);
    EXPECT_EQ(check_full_matrix(files.at("run.1401.full_matrix"), K).size(), static_cast<std::size_t>(N));
    check_pardo(files.at("run.1100.pardo"), "1100.4", N, K, {});
    check_pardo(files.at("run.1401.pardo"), "1400.99", N, K, {});  // 6 significant digits
    EXPECT_EQ(files.size(), 6u);
}

// Haplotype lines without alleles (K = 0): no sum is written, so the precision
// that later positions inherit from the sums is never set and every position
// keeps 6 significant digits.
TEST(E2eSmall, NoHaplotypesKeepTheDefaultPrecisionOnEveryLine) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    write_file(dir.file("ref.hap"), std::string(7, '\n'));
    write_file(dir.file("trees.txt"), "1175.5123456 0;0;\n1250.123456789 0;0;\n");
    auto const r = run_ketra(small_args("out/run"), dir.path().string());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("number of haplotypes: 0\n"), std::string::npos);
    EXPECT_EQ(read_file(dir.file("out/run")), "1175.51 \n1250.12 \n");
}

// Every individual excluded: the passes run for nobody, the writers still run.
TEST(E2eSmall, NoIndividualsWritesZeroSums) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    auto const args = plus(small_args("out/run"), {"-sample", "study.sample", "-exclude_samples", "exclude_all.txt",
                                                   "-tavlo_input", "-print_matrix", "-detail", "-snp_info"});
    auto const r = run_ketra(args, dir.path().string());
    EXPECT_EQ(r.status, 0);
    std::string const out = normalise(r.out);
    EXPECT_NE(out.find("number of individuals remaining for clustering: 0\n"), std::string::npos);
    EXPECT_TRUE(ends_with(out, "]         0/0\n\nwriting matrix file ... done\n\nfinished\n" + closing));
    auto const files = collect_files(dir.path() / "out");
    check_golden("no_individuals", &r.out, files);

    std::string const matrix = files.at("run");
    check_matrix_file(matrix, K, 0, small_positions.size());
    EXPECT_EQ(split_lines(matrix)[1], "1175.5 0, 0, 0, 0;");
    // No individual, no block: the .full_matrix files are removed and not recreated.
    for (auto const& f : files) EXPECT_EQ(f.first.find(".full_matrix"), std::string::npos) << f.first;
    for (std::string const& line : split_lines(files.at("run.1250.pardo"))) EXPECT_TRUE(ends_with(line, " 1250 A T "));
    // snp_info lines end after the genotype frequency (0/0 here) and its blank.
    for (std::string const& line : split_lines(files.at("run.snp_info.txt"))) {
        std::istringstream in(line);
        std::vector<std::string> words;
        for (std::string w; in >> w;) words.push_back(w);
        EXPECT_EQ(words.size(), 10u) << line;
        EXPECT_TRUE(ends_with(line, " 0 0 0 0 " + words.back() + " ")) << line;
    }
    EXPECT_EQ(files.size(), 8u);  // matrix, .aux, snp_info and 5 pardo files
}

// A genotype file that places no SNP leaves the individual count at -1 and the
// SNP table empty: every tree position goes to the .aux file, the progress
// line shows the count as it stands, and the matrix file is empty.
TEST(E2eSmall, GenotypesOffThePanelShowTheUnsetCount) {
    TempDir dir;
    copy_inputs(small_dir(), dir);
    std::string shifted;
    for (std::string const& line : split_lines(read_file(dir.file("study.gen")))) {
        std::istringstream in(line);
        std::string id, rs;
        long position = 0;
        in >> id >> rs >> position;
        std::string rest;
        std::getline(in, rest);
        shifted += id + " " + rs + " " + std::to_string(position + 1) + rest + "\n";
    }
    write_file(dir.file("study.gen"), shifted);
    auto const r = run_ketra(plus(small_args("out/run"), {"-tavlo_input", "-print_matrix", "-detail", "-threads", "2"}),
                             dir.path().string());
    EXPECT_EQ(r.status, 0);
    std::string const out = normalise(r.out);
    EXPECT_NE(out.find("number of individuals in genotype file: -1\n"), std::string::npos);
    EXPECT_TRUE(ends_with(out, "please be patient).\n\r[" + std::string(60, ' ') +
                                   "]         0/-1\n\nwriting matrix file ... done\n\nfinished\n" + closing))
        << out.substr(out.size() > 400 ? out.size() - 400 : 0);
    auto const files = collect_files(dir.path() / "out");
    EXPECT_EQ(files.at("run"), "");
    std::size_t ignored = 0;
    for (std::string const& line : split_lines(files.at("run.aux")))
        if (line.find(" ignored: no genotype or reference haplotype information") != std::string::npos) ++ignored;
    EXPECT_EQ(ignored, 7u);
    EXPECT_EQ(files.size(), 2u);
}

// Failures after the tree map file end the run with status 0, after the
// message and "Program terminated", without the closing lines.
TEST(E2eSmall, DataAndOutputFailuresEndWithStatusZero) {
    auto expect_failure = [](ketra_test::RunResult const& r, std::string const& tail) {
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(ends_with(r.out, tail + "\nProgram terminated\n")) << r.out.substr(r.out.size() > 300 ? r.out.size() - 300 : 0);
        EXPECT_EQ(r.out.find("Ketra complete!"), std::string::npos);
    };
    TempDir dir;
    copy_inputs(small_dir(), dir);
    std::string const trees = read_file(dir.file("trees.txt"));

    // Bad tree text at a selected position: only parsed with -tavlo_input.
    std::string bad = trees;
    replace_all(bad, "1250 0;4;2 4,1 3,5 6;", "1250 0;4;2 4,1 9,5 6;");
    ASSERT_NE(bad, trees);
    write_file(dir.file("trees.txt"), bad);
    expect_failure(run_ketra(plus(small_args("bad/run"), {"-tavlo_input"}), dir.path().string()),
                   "Bad tree data encountered at 1250 error with tree topology, can't find branch in read_tree.");
    EXPECT_FALSE(ketra_test::file_exists(dir.file("bad/run")));
    auto const unparsed = run_ketra(small_args("unparsed/run"), dir.path().string());
    EXPECT_EQ(unparsed.status, 0);
    EXPECT_TRUE(ends_with(ketra_test::mask_timing(unparsed.out), closing));
    check_matrix_file(read_file(dir.file("unparsed/run")), K, N, small_positions.size());

    // A bad tree at a skipped position is never parsed.
    bad = trees;
    replace_all(bad, "999 0;4;1 2,3 4,5 6;", "999 0;4;1 2,3 4;");
    write_file(dir.file("trees.txt"), bad);
    auto const skipped = run_ketra(plus(small_args("skipped/run"), {"-tavlo_input"}), dir.path().string());
    EXPECT_EQ(skipped.status, 0);
    EXPECT_TRUE(ends_with(ketra_test::mask_timing(skipped.out), closing));
    write_file(dir.file("trees.txt"), trees);

    // Missing genotype file.
    auto args = small_args("missing/run");
    args[7] = "absent.gen";
    expect_failure(run_ketra(args, dir.path().string()),
                   "Reading genotype file ... Error reading file absent.gen:  can't opened file.");

    // A plain matrix file that cannot be created (a folder has its name) is an
    // error after all individuals ran; a gzip one is not checked.
    fs::create_directories(dir.path() / "blocked" / "run");
    expect_failure(run_ketra(small_args("blocked/run"), dir.path().string()),
                   "]         3/3\n\nwriting matrix file ... Error reading file blocked/run: can't open file.");
    fs::create_directories(dir.path() / "blocked" / "run.gz");
    auto const gz = run_ketra(small_args("blocked/run.gz"), dir.path().string());
    EXPECT_EQ(gz.status, 0);
    EXPECT_TRUE(ends_with(ketra_test::mask_timing(gz.out),
                          "\n\nwriting matrix file in gzip mode ... done\n\nfinished\n" + closing));
}

// The bundled example: 28 tree positions, K = 100, N = 50; one and two
// threads write the same bytes, and the matrix file is kept as expected output.
TEST(E2eExample, RunsWithOneAndTwoThreads) {
    fs::path const example = fs::path(ketra_test::source_dir()) / "examples" / "chr20-small";
    std::vector<std::string> args;
    {
        std::istringstream in(read_file((example / "args.txt").string()));
        for (std::string word; in >> word;) args.push_back(word);
    }
    ASSERT_FALSE(args.empty());
    std::map<std::string, std::string> first;
    for (std::string threads : {"1", "2"}) {
        SCOPED_TRACE("-threads " + threads);
        TempDir dir;
        copy_inputs(example, dir);
        auto const r = run_ketra(plus(args, {"-threads", threads}), dir.path().string());
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(ends_with(ketra_test::mask_timing(r.out), closing));
        auto files = collect_files(dir.path() / "out");
        for (auto& f : files) f.second = drop_command_line(f.second);
        if (threads == "1") {
            first = files;
            continue;
        }
        EXPECT_EQ(files, first);
    }
    ASSERT_TRUE(first.count("run"));
    check_matrix_file(first.at("run"), 100, 50, 28);
    std::size_t pardo = 0;
    for (auto const& f : first) {
        if (!ends_with(f.first, ".pardo")) continue;
        ++pardo;
        // "run.<position rounded>.pardo"; inside, the position has 6 significant digits.
        double const named = std::stod(f.first.substr(4, f.first.size() - 10));
        std::string const written = check_pardo(f.second, "", 50, 100, {});
        EXPECT_NEAR(std::stod(written), named, 5.5) << f.first;
    }
    EXPECT_EQ(pardo, 28u);
    check_golden("example_chr20_small", nullptr, {{"run", first.at("run")}});
}
