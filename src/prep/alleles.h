// What ketra-prep decides from a record's alleles and calls: whether a site is
// a biallelic SNP, how a study SNP's alleles meet the panel's, and the
// genotype triple of a hard call.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include <htslib/vcf.h>

inline char complement(char base) {
    switch (base) {
        case 'A': return 'T';
        case 'T': return 'A';
        case 'C': return 'G';
        default: return 'C';
    }
}

enum class kind { snp, multi, other };

inline kind snp_kind(bcf1_t const* rec) {
    auto const base = [](char const* a) { return a[0] != '\0' && a[1] == '\0' && std::strchr("ACGT", a[0]); };
    if (rec->n_allele > 2) return kind::multi;
    if (rec->n_allele < 2 || !base(rec->d.allele[0]) || !base(rec->d.allele[1])) return kind::other;
    return kind::snp;
}

enum category { same, swapped, complementary, ambiguous, mismatch };

// The category of study alleles (s0, s1) against the panel's (p0, p1), and
// whether the study's order is the reverse of the panel's.
inline category classify(char p0, char p1, char s0, char s1, bool& reorder) {
    reorder = false;
    if (complement(p0) == p1) {
        // A/T and C/G read the same on both strands: taken as the same strand.
        if (s0 == p0 && s1 == p1) return ambiguous;
        if (s1 == p0 && s0 == p1) return reorder = true, ambiguous;
        return mismatch;
    }
    if (s0 == p0 && s1 == p1) return same;
    if (s1 == p0 && s0 == p1) return reorder = true, swapped;
    if (complement(s0) == p0 && complement(s1) == p1) return complementary;
    if (complement(s1) == p0 && complement(s0) == p1) return reorder = true, complementary;
    return mismatch;
}

// The two alleles of a diploid call of alleles 0/1, false for anything else
// (missing, haploid, more than two alleles, other allele indices).
inline bool biallelic_pair(std::int32_t const* g, int ploidy, int& a0, int& a1) {
    if (ploidy < 2 || g[1] == bcf_int32_vector_end || (ploidy > 2 && g[2] != bcf_int32_vector_end)) return false;
    a0 = bcf_gt_allele(g[0]);
    a1 = bcf_gt_allele(g[1]);
    return !bcf_gt_is_missing(g[0]) && !bcf_gt_is_missing(g[1]) && a0 >= 0 && a0 <= 1 && a1 >= 0 && a1 <= 1;
}

// The probability triples of the hard calls 0, 1, 2 copies of the second
// allele, and of anything else (which Ketra reads as missing).
inline std::string const triple_text[4] = {"1 0 0", "0 1 0", "0 0 1", "0.333333 0.333333 0.333333"};
