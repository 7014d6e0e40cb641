// -strict: every failure ends non-zero with a clear message, while the
// default run keeps its lenient outcome; a valid run is the same either way.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include <boost/filesystem/operations.hpp>

#include "support/test_support.h"

using namespace ketra_test;
namespace fs = boost::filesystem;

namespace {

std::string const small_dir = source_dir() + "/tests/data/small/";
std::string const completed = "Ketra complete!";

std::vector<std::string> small_args() {
    return {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", "study.gen", "-tree_file", "trees.txt",
            "-int", "900", "2000", "-buffer", "0", "-o", "out/run"};
}

// Replaces the value that follows flag in args.
std::vector<std::string> with(std::vector<std::string> args, std::string const& flag, std::string const& value) {
    auto it = std::find(args.begin(), args.end(), flag);
    if (it == args.end()) args.insert(args.end(), {flag, value});
    else *(it + 1) = value;
    return args;
}

std::vector<std::string> plus(std::vector<std::string> args, std::vector<std::string> const& more) {
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

void prepare_inputs(TempDir const& dir) {
    for (char const* f : {"ref.hap", "ref.legend", "map.txt", "study.gen", "trees.txt", "study.sample"})
        fs::copy_file(small_dir + f, dir.path() / f);
    std::string const map = read_file(small_dir + "map.txt");
    std::string const second_row = "900 2.0 0.000\n";
    write_file(dir.file("repeated_row.map"), map.substr(0, map.find('\n') + 1) + second_row + map.substr(map.find('\n') + 1));
    for (char const* f : {"ref.hap", "ref.legend", "map.txt", "study.sample"})
        write_gz_file(dir.file(std::string("z_") + f), read_file(small_dir + f));
    write_gz_file(dir.file("z_strand.txt"), "1000 -\n");
    write_gz_file(dir.file("z_ids.txt"), "rs1\n");
    fs::create_directories(dir.path() / "auxdir" / "run.aux");
    write_file(dir.file("blocker"), "a file where the output folder should go\n");
    std::string trees = read_file(small_dir + "trees.txt");
    trees.replace(trees.find("1250 0;4;2 4,1 3,5 6;"), 21, "1250 0;4;2 4,1 9,5 6;");
    write_file(dir.file("bad_trees.txt"), trees);
}

}  // namespace

TEST(Strict, EveryFailureIsNonZeroWhileTheDefaultRunKeepsItsOutcome) {
    TempDir dir;
    prepare_inputs(dir);
    auto const base = small_args();
    struct Case {
        std::string name;
        std::vector<std::string> args;
        bool default_completes;    // the default run ends with the closing message, status 0
        std::string default_text;  // a line the default run prints ("" for none)
        std::string strict_text;   // the line -strict ends with, status 1
    };
    std::string const gz = ": file is gzip-compressed, but this input is read as plain text";
    std::vector<Case> const cases = {
        {"negative Ne", with(base, "-Ne", "-5"), true, "Error: Ne needs to be set\n",
         "ERROR!!! Bad value given for flag -Ne: -5 (must lie between 0 and 30000)\n"},
        {"Ne too large", with(base, "-Ne", "30001"), true, "Error: Ne needs to be set\n",
         "ERROR!!! Bad value given for flag -Ne: 30001 (must lie between 0 and 30000)\n"},
        {"Ne nan", with(base, "-Ne", "nan"), true, "", "ERROR!!! Bad value given for flag -Ne: nan (not a finite number)\n"},
        {"Ne inf", with(base, "-Ne", "inf"), true, "Error: Ne needs to be set\n",
         "ERROR!!! Bad value given for flag -Ne: inf (not a finite number)\n"},
        {"theta inf", with(base, "-theta", "inf"), true, "",
         "ERROR!!! Bad value given for flag -theta: inf (not a finite number)\n"},
        {"negative theta", with(base, "-theta", "-0.5"), true, "",
         "ERROR!!! Bad value given for flag -theta: -0.5 (must not be negative)\n"},
        {"call threshold", with(base, "-call_thresh", "1.5"), true, "",
         "ERROR!!! Bad value given for flag -call_thresh: 1.5 (must lie between 0 and 1)\n"},
        {"not a number", with(base, "-buffer", "ten"), true, "",
         "ERROR!!! Bad value given for flag -buffer: ten (not a number)\n"},
        {"threads not whole", with(base, "-threads", "2.5"), true, "",
         "ERROR!!! Bad value given for flag -threads: 2.5 (not a whole number)\n"},
        {"mistyped flag", plus(base, {"-print_matrx"}), true, "",
         "ERROR!!! Flag error: unknown flag -print_matrx\n"},
        {"repeated map row", with(base, "-m", "repeated_row.map"), true, "",
         "Error reading file repeated_row.map: map positions not strictly increasing on line 3.\n"},
        {"compressed map", with(base, "-m", "z_map.txt"), true, "", "Error reading file z_map.txt" + gz},
        {"compressed legend", with(base, "-l", "z_ref.legend"), false, "", "Error reading file z_ref.legend" + gz},
        {"compressed haplotypes", with(base, "-h", "z_ref.hap"), false, "", "Error reading file z_ref.hap" + gz},
        {"compressed strand", with(base, "-strand", "z_strand.txt"), true, "", "Error reading file z_strand.txt" + gz},
        {"compressed sample file", plus(base, {"-sample", "z_study.sample", "-exclude_samples", "z_ids.txt"}), false,
         "", "Error reading file z_study.sample" + gz},
        {"compressed SNP exclusions", with(base, "-exclude_snps", "z_ids.txt"), true, "",
         "Error reading file z_ids.txt" + gz},
        {"missing SNP exclusions", with(base, "-exclude_snps", "absent.txt"), true, "",
         "Error reading file absent.txt: no such exclusion list file.\n"},
        {"missing genotype file", with(base, "-g", "absent.gen"), false,
         "Error reading file absent.gen:  can't opened file.\n", "Error reading file absent.gen:  can't opened file.\n"},
        {"bad tree", plus(with(base, "-tree_file", "bad_trees.txt"), {"-tavlo_input"}), false,
         "Bad tree data encountered at 1250", "Bad tree data encountered at 1250"},
        {"aux file cannot be written", with(base, "-o", "auxdir/run"), true, "Warning can't write aux file: auxdir/run.aux\n",
         "Error writing file auxdir/run.aux: Is a directory\n"},
        {"output folder cannot be created", with(base, "-o", "blocker/sub/run"), false, "",
         "Error while processing the command line and creating the output directory: file system error: "},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(dir.path() / "out");
        auto const lenient = run_ketra(c.args, dir.path().string());
        EXPECT_EQ(lenient.out.find(completed) != std::string::npos, c.default_completes) << lenient.out;
        if (c.name == "output folder cannot be created") {
            EXPECT_NE(lenient.status, 0);  // the runtime's own termination
            EXPECT_NE(lenient.err.find("terminate called"), std::string::npos) << lenient.err;
        } else {
            EXPECT_EQ(lenient.status, 0);
            EXPECT_EQ(lenient.err, "");
        }
        EXPECT_NE(lenient.out.find(c.default_text), std::string::npos) << lenient.out;
        EXPECT_EQ(lenient.out.find(c.strict_text), c.default_text == c.strict_text ? lenient.out.find(c.default_text)
                                                                                 : std::string::npos);

        auto const strict = run_ketra(plus(c.args, {"-strict"}), dir.path().string());
        EXPECT_EQ(strict.status, 1);
        EXPECT_EQ(strict.err, "");
        EXPECT_EQ(strict.out.find(completed), std::string::npos);
        EXPECT_NE(strict.out.find(c.strict_text), std::string::npos) << strict.out;
    }
}

TEST(Strict, ValidRunsGiveTheDefaultRunsConsoleAndFiles) {
    TempDir dir;
    prepare_inputs(dir);
    // A value that begins with "-" is no flag: -int -1 2000 is accepted.
    for (auto const& extra : std::vector<std::vector<std::string>>{
             {"-tavlo_input", "-print_matrix", "-snp_info", "-threads", "2"}, {"-int", "-1", "2000", "-Ne", "0"}}) {
        auto const args = plus(small_args(), extra);
        fs::remove_all(dir.path() / "out");
        auto const lenient = run_ketra(args, dir.path().string());
        fs::rename(dir.path() / "out", dir.path() / "lenient");
        auto const strict = run_ketra(plus(args, {"-strict"}), dir.path().string());
        ASSERT_EQ(lenient.status, 0);
        EXPECT_EQ(strict.status, 0);
        // The echoed command line is the one difference.
        auto same = [](std::string text) {
            std::size_t const at = text.find(" -strict ");
            if (at != std::string::npos) text.erase(at, 8);
            return mask_timing(text);
        };
        EXPECT_EQ(same(strict.out), same(lenient.out));
        int files = 0;
        for (auto const& entry : fs::directory_iterator(dir.path() / "lenient")) {
            std::string const name = entry.path().filename().string();
            ASSERT_TRUE(file_exists(dir.file("out/" + name))) << name;
            EXPECT_EQ(same(read_file(dir.file("out/" + name))), same(read_file(entry.path().string()))) << name;
            ++files;
        }
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path() / "out"), fs::directory_iterator()), files);
        fs::remove_all(dir.path() / "lenient");
    }
}

// Runs killed at random moments leave, under their final names, only whole
// files: the ones written through output_file (.aux, .snp_info.txt).
TEST(Strict, KilledRunsLeaveNoPartFileUnderAFinalName) {
    TempDir dir;
    fs::path const example = fs::path(source_dir()) / "examples" / "chr20-small";
    for (auto const& entry : fs::directory_iterator(example))
        if (fs::is_regular_file(entry.path())) fs::copy_file(entry.path(), dir.path() / entry.path().filename());
    std::vector<std::string> args = {KETRA_BINARY, "-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g",
                                     "study.gen.gz", "-tree_file", "trees.txt", "-int", "1350000", "1395000",
                                     "-buffer", "15", "-snp_info", "-strict", "-o", "whole/run"};
    std::vector<std::string> const checked = {"run.aux", "run.snp_info.txt"};
    auto const reference = run_ketra(std::vector<std::string>(args.begin() + 1, args.end()), dir.path().string());
    ASSERT_EQ(reference.status, 0);

    std::mt19937 rng(12345);
    args.back() = "killed/run";
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int partial_runs = 0;
    for (int round = 0; round < 12; ++round) {
        fs::remove_all(dir.path() / "killed");
        pid_t const child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (chdir(dir.path().c_str()) != 0) _exit(127);
            if (!freopen("/dev/null", "w", stdout)) _exit(127);
            execv(KETRA_BINARY, argv.data());
            _exit(127);
        }
        usleep(std::uniform_int_distribution<int>(0, 400000)(rng));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        if (WIFSIGNALED(status)) ++partial_runs;
        for (auto const& name : checked) {
            std::string const path = dir.file("killed/" + name);
            if (!file_exists(path)) continue;
            std::string content = read_file(path);
            std::string expected = read_file(dir.file("whole/" + name));
            // The .aux file echoes the output path.
            for (std::string* text : {&content, &expected}) {
                for (std::size_t at; (at = text->find("killed/run")) != std::string::npos;) text->replace(at, 10, "X");
                for (std::size_t at; (at = text->find("whole/run")) != std::string::npos;) text->replace(at, 9, "X");
            }
            EXPECT_EQ(content, expected) << name << " in round " << round;
        }
    }
    EXPECT_GT(partial_runs, 0) << "no run was stopped before its end";
}

// Out of memory: the runtime's termination by default, one line under -strict.
// Address space limits and AddressSanitizer's shadow memory do not mix.
TEST(Strict, OutOfMemoryIsOneClearLine) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limit under AddressSanitizer";
#endif
    TempDir dir;
    // K = 6000: one pair array alone is 6000 * 6001 / 2 doubles, 144 MB.
    int const K = 6000;
    std::mt19937 rng(3);
    std::string legend = "id position a0 a1\n", hap, gen;
    for (int i = 0; i < 4; ++i) {
        std::string const pos = std::to_string(1000 + 100 * i);
        legend += "rs" + std::to_string(i) + " " + pos + " A G\n";
        gen += "S" + std::to_string(i) + " rs" + std::to_string(i) + " " + pos + " A G 0.9 0.05 0.05\n";
        for (int k = 0; k < K; ++k) hap += k + 1 < K ? (rng() % 2 ? "1 " : "0 ") : (rng() % 2 ? "1\n" : "0\n");
    }
    write_file(dir.file("ref.legend"), legend);
    write_file(dir.file("ref.hap"), hap);
    write_file(dir.file("study.gen"), gen);
    write_file(dir.file("map.txt"), "pos rate cM\n900 1 0\n3000 1 0.01\n");
    write_file(dir.file("trees.txt"), "1250 0;4;1 2,3 4,5 6;\n");
    std::string const command = "cd " + dir.path().string() + " && ulimit -v 120000 && " + KETRA_BINARY +
                                " -h ref.hap -l ref.legend -m map.txt -g study.gen -tree_file trees.txt"
                                " -int 900 2000 -buffer 0 -o out/run";
    for (bool strict : {false, true}) {
        std::string const run = command + (strict ? " -strict" : "") + " >out.txt 2>err.txt";
        int const raw = std::system(run.c_str());
        std::string const out = read_file(dir.file("out.txt")), err = read_file(dir.file("err.txt"));
        EXPECT_EQ(out.find(completed), std::string::npos) << out;
        if (strict) {
            EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 1) << raw;
            EXPECT_NE(out.find("\nError while "), std::string::npos) << out;
            EXPECT_NE(out.find(": out of memory\nProgram terminated\n"), std::string::npos) << out;
            EXPECT_EQ(err, "");
        } else {
            EXPECT_NE(raw, 0);
            EXPECT_NE(err.find("std::bad_alloc"), std::string::npos) << err;
        }
    }
}
