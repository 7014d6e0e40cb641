// Compressed pardo files: a run whose files of several 1 MB blocks are
// compressed by several threads at once must write gzip files that zcat turns
// back into the plain run's files byte for byte.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench_inputs.h"
#include "support/test_support.h"

namespace fs = boost::filesystem;

// Two pardo files of several blocks each and more threads than files.
TEST(PardoGzip, ManyBlocksPerFileDecompressToThePlainRun) {
    ketra_test::TempDir dir;
    bench_sizes sizes;
    sizes.haplotypes = 100, sizes.snps = 30, sizes.individuals = 400, sizes.positions = 2;
    std::istringstream inputs(write_bench_inputs(sizes, dir.path().string()));
    std::vector<std::string> plain, packed;
    for (std::string w; inputs >> w;) plain.push_back(w);
    packed = plain;
    plain.insert(plain.end(), {"-o", dir.file("plain/run")});
    packed.insert(packed.end(), {"-pardo_gz", "-threads", "5", "-o", dir.file("gz/run")});
    ASSERT_EQ(ketra_test::run_ketra(plain, dir.path().string()).status, 0);
    ASSERT_EQ(ketra_test::run_ketra(packed, dir.path().string()).status, 0);
    int pardo_files = 0;
    for (auto const& entry : fs::directory_iterator(dir.path() / "plain")) {
        if (entry.path().extension() != ".pardo") continue;
        ++pardo_files;
        std::string const text = entry.path().string(), gz = dir.file("gz/" + entry.path().filename().string() + ".gz");
        ASSERT_GT(fs::file_size(text), 2u << 20) << "too small to have several blocks";
        EXPECT_LT(fs::file_size(gz) * 2, fs::file_size(text)) << "not compressed";
        EXPECT_EQ(std::system(("zcat '" + gz + "' | cmp -s - '" + text + "'").c_str()), 0) << gz;
    }
    EXPECT_EQ(pardo_files, 2);
}
