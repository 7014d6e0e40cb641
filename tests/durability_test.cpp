// Whole-files mode puts a result under its final name only once it is on the
// disk: the temporary file is synced before the rename, and its folder after
// it. In every mode the text comes out in the order it was written. The test
// binary is linked with fsync and rename wrapped (see tests/CMakeLists.txt),
// so the calls the library makes are recorded in order.
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "io/output_file.h"
#include "support/test_support.h"

namespace {

std::vector<std::string> events;

std::string path_of(int fd) {
    char target[PATH_MAX];
    ssize_t const n = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
    return n < 0 ? "?" : boost::filesystem::path(std::string(target, static_cast<std::size_t>(n))).filename().string();
}

}  // namespace

extern "C" {
int __real_fsync(int fd);
int __real_rename(char const* from, char const* to);

int __wrap_fsync(int fd) {
    events.push_back("fsync " + path_of(fd));
    return __real_fsync(fd);
}

int __wrap_rename(char const* from, char const* to) {
    events.push_back("rename " + boost::filesystem::path(from).filename().string() + " " +
                     boost::filesystem::path(to).filename().string());
    return __real_rename(from, to);
}
}

namespace {

struct ModeReset {
    ~ModeReset() { output_file::set_whole_files_only(false); }
};

TEST(Durability, FilesReachTheDiskBeforeTheirRenameAndTheFolderAfterIt) {
    struct Case {
        std::string name;
        bool whole_files;
        output_file::mode how;
        std::string kept;  // what of the earlier file is kept before the new text
    };
    Case const cases[] = {
        {"run", true, output_file::mode::truncate, ""},
        {"run.pardo.gz", true, output_file::mode::truncate, ""},
        {"run.aux", true, output_file::mode::append, "earlier\n"},
        {"run", false, output_file::mode::truncate, ""},  // default runs write in place, unsynced
    };
    // A block large enough to bypass the stream's buffer, between small
    // writes that sit in it: the text must still come out in order.
    std::vector<std::string> const pieces = {"written\n", std::string(100000, 'x') + "\n", "end\n"};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name + (c.whole_files ? " whole files" : " in place"));
        ketra_test::TempDir dir;
        auto const folder = dir.path() / "out";
        boost::filesystem::create_directory(folder);
        ketra_test::write_file((folder / c.name).string(), "earlier\n");
        ModeReset reset;
        output_file::set_whole_files_only(c.whole_files);
        events.clear();
        {
            output_file file(folder / c.name, c.how);
            ASSERT_TRUE(file.is_open());
            for (auto const& piece : pieces) file.write(piece);
            file.finish();
        }
        std::vector<std::string> expected;
        if (c.whole_files) {
            ASSERT_FALSE(events.empty());
            std::string const temporary = events.front().substr(6);
            EXPECT_EQ(temporary.rfind("." + c.name + ".", 0), 0u) << temporary;
            expected = {"fsync " + temporary, "rename " + temporary + " " + c.name, "fsync out"};
        }
        EXPECT_EQ(events, expected);
        auto const files = ketra_test::collect_output_files(folder);
        auto const name = c.name.size() > 3 && c.name.substr(c.name.size() - 3) == ".gz" ? c.name + ".unzipped" : c.name;
        ASSERT_EQ(files.size(), 1u);
        EXPECT_TRUE((files.count(name) ? files.at(name) : "") == c.kept + pieces[0] + pieces[1] + pieces[2]);
    }
}

}  // namespace
