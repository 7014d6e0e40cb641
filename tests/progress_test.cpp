// Progress bar, memory estimate and line counting.
#include <gtest/gtest.h>

#include "app/progress.h"
#include "hmm/hmm.h"
#include "support/test_support.h"

TEST(ProgressBar, FillsByTruncatedFractionAndClamps) {
    EXPECT_EQ(get_progress_bar(10, 0.25), "[**        ]");
    EXPECT_EQ(get_progress_bar(10, 1.7), "[**********]");
    EXPECT_EQ(get_progress_bar(10, -0.5), "[          ]");
    EXPECT_EQ(get_progress_bar(0, 0.5), "[]");
    EXPECT_EQ(get_progress_bar(4, 0.0 / 0.0), "[    ]");
    EXPECT_EQ(get_progress_bar(3, 0.999), "[** ]");
    for (unsigned long w : {1ul, 7ul, 60ul})
        for (double f : {0.0, 0.3, 0.5, 1.0}) EXPECT_EQ(get_progress_bar(w, f).size(), w + 2);
}

TEST(MemoryEstimate, UsesWrappingThirtyTwoBitProducts) {
    HMM h;
    h.n_haplotypes = 40000;
    h.n_individuals = 10;
    h.snps[1.0] = snp();
    h.snps[2.0] = snp();
    data d = h;
    ketra_test::CoutCapture capture;
    mem_est(d, h);
    // 8 * 40000 * 40000 * 2 = 25.6e9 wraps modulo 2^32 to 4125163520.
    EXPECT_EQ(capture.text(),
              "  genetic and physical map: 6.4e-05Mb\n"
              "            haplotype data: 0.32Mb\n"
              "            haplotype data: 0.32Mb\n"
              "          called genotypes: 8e-05Mb\n"
              "       threshold genotypes: 0.00048Mb\n"
              "forward and backward paths: 4125.16Mb\n"
              "\n"
              "Estimated RAM required is   4125.804Mb\n\n");
}

TEST(CountLines, CountsLinesAndGivesZeroForMissingFile) {
    ketra_test::TempDir dir;
    ketra_test::write_file(dir.file("three"), "a\nb\nc\n");
    ketra_test::write_file(dir.file("unterminated"), "a\nb");
    EXPECT_EQ(countLines(dir.file("three")), 3);
    EXPECT_EQ(countLines(dir.file("unterminated")), 2);
    EXPECT_EQ(countLines(dir.file("absent")), 0);
}
