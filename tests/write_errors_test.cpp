// Output files: a write that fails after the open (full device, full file
// system) is reported with the file and the system's reason; in whole-files
// mode a file shows under its own name only once it is complete.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <random>

#include <boost/filesystem/operations.hpp>

#include "io/output_file.h"
#include "support/test_support.h"

using namespace ketra_test;
namespace fs = boost::filesystem;

namespace {

// What finish() said: "" when it went well.
std::string finish_error(output_file& out) {
    try {
        out.finish();
    } catch (write_error const& e) {
        return e.what();
    }
    return "";
}

std::string const text = [] {
    std::string t;
    for (int i = 0; i < 20000; ++i) t += "0.1234567891, 0.9876543219, 0.5;\n";
    return t;
}();

// A 64 KiB tmpfs mounted on dir, or false where mounting is not permitted.
class small_tmpfs {
public:
    explicit small_tmpfs(std::string dir) : dir_(std::move(dir)) {
        mounted_ = ::mount("tmpfs", dir_.c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~small_tmpfs() {
        if (mounted_) ::umount(dir_.c_str());
    }
    bool mounted() const { return mounted_; }

private:
    std::string dir_;
    bool mounted_ = false;
};

struct whole_files_mode {
    whole_files_mode() { output_file::set_whole_files_only(true); }
    ~whole_files_mode() { output_file::set_whole_files_only(false); }
};

}  // namespace

TEST(OutputFile, WritesWholeFilesAndReportsFailedWrites) {
    TempDir dir;
    fs::create_symlink("/dev/full", dir.path() / "full.txt");
    fs::create_symlink("/dev/full", dir.path() / "full.gz");
    write_file(dir.file("log.txt"), "earlier\n");
    struct Case { std::string name; output_file::mode how; bool gzip; std::string error; std::string content; };
    std::vector<Case> const cases = {
        {"plain.txt", output_file::mode::truncate, true, "", text},
        {"matrix.gz", output_file::mode::truncate, true, "", text},
        {"log.txt", output_file::mode::append, true, "", "earlier\n" + text},
        {"named.gz", output_file::mode::truncate, false, "", text},
        {"full.txt", output_file::mode::truncate, true, "No space left on device", ""},
        {"full.gz", output_file::mode::truncate, true, "No space left on device", ""},
        {"full.txt", output_file::mode::append, true, "No space left on device", ""},
    };
    for (bool whole : {false, true}) {
        output_file::set_whole_files_only(whole);
        for (auto const& c : cases) {
            if (whole && c.name.rfind("full", 0) == 0) continue;  // the rename would replace the link
            if (c.how == output_file::mode::append) write_file(dir.file(c.name), c.content.substr(0, 8));
            output_file out(dir.path() / c.name, c.how, c.gzip);
            ASSERT_TRUE(out.is_open()) << c.name;
            out.write(text);
            std::string const error = finish_error(out);
            if (c.error.empty()) {
                EXPECT_EQ(error, "") << c.name;
                bool const compressed = c.gzip && c.name.size() > 3 && c.name.substr(c.name.size() - 3) == ".gz";
                EXPECT_EQ(compressed ? read_gz_file(dir.file(c.name)) : read_file(dir.file(c.name)), c.content)
                    << c.name << (whole ? " whole-files" : "");
            } else {
                EXPECT_EQ(error, "Error writing file " + dir.file(c.name) + ": " + c.error) << c.name;
            }
        }
    }
    output_file::set_whole_files_only(false);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 6)
        << "no temporary file may stay behind";
}

TEST(OutputFile, FullFileSystemIsReportedOrSkippedWhereMountingIsNotAllowed) {
    TempDir dir;
    fs::create_directories(dir.path() / "small");
    small_tmpfs fs_small(dir.file("small"));
    if (!fs_small.mounted()) GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    // Random digits: even compressed they overflow the 64 KiB.
    std::mt19937 rng(7);
    std::string digits;
    for (int i = 0; i < 400000; ++i) digits += static_cast<char>('0' + rng() % 10);
    for (std::string const name : {"run.1000.pardo", "run.gz"}) {
        output_file out(dir.path() / "small" / name);
        ASSERT_TRUE(out.is_open());
        out.write(digits);
        EXPECT_EQ(finish_error(out), "Error writing file " + dir.file("small/" + name) + ": No space left on device");
        fs::remove(dir.path() / "small" / name);
    }
}

TEST(OutputFile, InWholeFilesModeTheFinalNameAppearsOnlyWhenComplete) {
    TempDir dir;
    whole_files_mode whole;
    write_file(dir.file("old.txt"), "old\n");
    {
        output_file out(dir.path() / "old.txt");
        out.write(text);
        out.stream().flush();
        EXPECT_EQ(read_file(dir.file("old.txt")), "old\n") << "the final name holds the earlier file until finish";
        output_file fresh(dir.path() / "new.txt");
        fresh.write(text);
        EXPECT_FALSE(file_exists(dir.file("new.txt")));
        // new.txt is dropped unfinished, as when a later step fails.
        out.finish();
    }
    EXPECT_EQ(read_file(dir.file("old.txt")), text);
    EXPECT_FALSE(file_exists(dir.file("new.txt")));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    EXPECT_EQ(fs::status(dir.file("old.txt")).permissions() & 0777, 0666 & ~[] {
        mode_t const m = ::umask(0);
        ::umask(m);
        return m;
    }());
}

TEST(WriteErrors, RunReportsTheFileAndReasonWithoutDoneAndNonZeroStatus) {
    TempDir dir;
    std::string const small = source_dir() + "/tests/data/small/";
    for (char const* f : {"ref.hap", "ref.legend", "map.txt", "study.gen", "trees.txt"})
        fs::copy_file(small + f, dir.path() / f);
    fs::create_directories(dir.path() / "out");
    std::vector<std::string> const args = {"-h", "ref.hap", "-l", "ref.legend", "-m", "map.txt", "-g", "study.gen",
                                           "-tree_file", "trees.txt", "-int", "900", "2000", "-buffer", "0",
                                           "-o", "out/run", "-snp_info"};
    struct Case { std::string file, tail; };
    std::vector<Case> const cases = {
        {"out/run.aux", "writing .aux file: out/run.aux\n\nError writing file out/run.aux: No space left on device\n"},
        {"out/run.snp_info.txt", "Outputing snp information to file out/run.snp_info.txt ... "
                                 "Error writing file out/run.snp_info.txt: No space left on device\n"},
    };
    for (auto const& c : cases) {
        fs::remove_all(dir.path() / "out");
        fs::create_directories(dir.path() / "out");
        fs::create_symlink("/dev/full", dir.path() / c.file);
        auto const r = run_ketra(args, dir.path().string());
        EXPECT_EQ(r.status, 1) << c.file;
        EXPECT_NE(r.out.find(c.tail + "Program terminated\n"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Ketra complete!"), std::string::npos);
        EXPECT_EQ(r.err, "");
    }
}
