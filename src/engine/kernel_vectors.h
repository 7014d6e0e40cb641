// The kernel's own building blocks, shared by its source files and by no one
// else: the dispatch macros, four doubles as one vector value, the
// transition coefficients, and the fixed-order pass over a pair array.
//
// Every pass over a pair array walks row i = 0..K-1, columns j < i, then the
// diagonal. Each off-diagonal value is added to the column sum R[j] (rows in
// increasing order) and to partial sum j % 8 of its row (columns in
// increasing order); the eight partials are reduced in a fixed tree. Row i's
// sum R[i] is that reduction plus the diagonal, and the total adds
// 2 * off-diagonal + diagonal row by row. These orders are fixed in the
// source, so the results do not depend on the vector width.
//
// A transition step writes, for pair {i, j},
//     ((R(i) + R(j)) * ab + bbt) + aa * old
// with aa = a*a, ab = a*b, bbt = b*b*total, a = stay - jump, b = jump.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "engine/kernel.h"

// A portable build carries each pass in several versions (AVX-512, AVX2,
// baseline) and picks one by the processor it runs on. The versions give the
// same bits: contraction is off for all of them, and the summation order is
// fixed in the source.
#if defined(KETRA_RUNTIME_DISPATCH) && defined(__x86_64__) && !defined(__AVX__)
#define KETRA_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#define KETRA_DISPATCHED 1
#else
#define KETRA_CLONES
#define KETRA_DISPATCHED 0
#endif

namespace hmm_kernel {

namespace {

using pair_arith::Coefficients;
using pair_arith::coefficients;
using pair_arith::step_value;

inline double reduce8(const double* a) {
    return ((a[0] + a[1]) + (a[2] + a[3])) + ((a[4] + a[5]) + (a[6] + a[7]));
}

// Four doubles handled as one value; the compiler maps it onto the vector
// registers of the target (two SSE registers on baseline x86-64, one AVX
// register with -march=native), with the same results either way.
#define KETRA_INLINE inline __attribute__((always_inline))
typedef double v4 __attribute__((vector_size(32)));
typedef std::int64_t m4 __attribute__((vector_size(32)));
// The same, for loads and stores at any double-aligned address.
typedef double v4u __attribute__((vector_size(32), aligned(8), may_alias));

KETRA_INLINE v4 load4(const double* p) { return *reinterpret_cast<const v4u*>(p); }
KETRA_INLINE void store4(double* p, v4 v) { *reinterpret_cast<v4u*>(p) = v; }
KETRA_INLINE v4 splat(double x) { return v4{x, x, x, x}; }

// A row's transition coefficients and row sum in every lane. Rows make them
// once, before their loop: the portable build's versions would otherwise
// rebuild them for every block.
struct Lanes {
    v4 aa, ab, bbt, ri;
    KETRA_INLINE Lanes(Coefficients c, double r) : aa(splat(c.aa)), ab(splat(c.ab)), bbt(splat(c.bbt)), ri(splat(r)) {}
};

// Emission of the pairs of one row: e0 for columns with allele 0, e1 for
// allele 1, where e0 = E[h_i][g], e1 = E[h_i + 1][g]. Selected by bit masks,
// so that E[h_i + h_j][g] comes out exactly and without branches.
struct RowEmission {
    double e0 = 0.0, e1 = 0.0;
    v4 s0 = {}, s1 = {};  // e0 and e1 in every lane, made once per row
    RowEmission() = default;
    KETRA_INLINE RowEmission(const double* h, const double* ecol, int i) {
        int const hi = static_cast<int>(h[i]);
        e0 = ecol[hi];
        e1 = ecol[hi + 1];
        s0 = splat(e0);
        s1 = splat(e1);
    }
    double at(const double* h, int j) const {
        std::uint64_t a, b, hb;
        std::memcpy(&a, &e0, sizeof a);
        std::memcpy(&b, &e1, sizeof b);
        std::memcpy(&hb, h + j, sizeof hb);
        std::uint64_t const mask = 0 - ((hb >> 61) & 1);  // 1.0 has bit 61 set, 0.0 none
        std::uint64_t const r = a ^ ((a ^ b) & mask);
        double out;
        std::memcpy(&out, &r, sizeof out);
        return out;
    }
    KETRA_INLINE v4 at4(v4 hj) const {
#if defined(__AVX__) || KETRA_DISPATCHED
        // One compare and one blend; also the form for the AVX versions of a
        // portable build (its baseline version then takes a slower route).
        return hj != v4{} ? s1 : s0;
#else
        // Without AVX a lane compare would be split into branches; integer
        // lanes instead: 1.0 has bit 61 set, 0.0 has no bit set.
        m4 const mask = (m4{0, 0, 0, 0}) - (((m4)hj >> 61) & 1);
        return (v4)(((m4)s0 & ~mask) | ((m4)s1 & mask));
#endif
    }
};

// One pass over a pair array. make_row(i) gives an object for row i with
// v4 block(j), the values of columns j..j+3 (j + 3 < i), and double one(j),
// the value of column j <= i; both also store whatever the pass writes. Each
// off-diagonal value is added to R[j] (unless Sums is false) and to partial
// sum j % 8 of its row; columns come in blocks of eight (two halves of four),
// one block of four where it fits, then single columns. Returns the total,
// the sum of all K*K entries of the full symmetric matrix.
template <bool Sums = true, class MakeRow>
KETRA_INLINE double sweep(int K, double* R, MakeRow const& make_row) {
    double total = 0.0;
    for (int i = 0; i < K; ++i) {
        auto const row = make_row(i);
        v4 lo = splat(0.0), hi = splat(0.0);
        int j = 0;
        for (; j + 8 <= i; j += 8) {
            v4 const x = row.block(j);
            if (Sums) store4(R + j, load4(R + j) + x);
            lo += x;
            v4 const y = row.block(j + 4);
            if (Sums) store4(R + j + 4, load4(R + j + 4) + y);
            hi += y;
        }
        if (j + 4 <= i) {
            v4 const x = row.block(j);
            if (Sums) store4(R + j, load4(R + j) + x);
            lo += x;
            j += 4;
        }
        double acc[8];
        std::memcpy(acc, &lo, sizeof lo);
        std::memcpy(acc + 4, &hi, sizeof hi);
        for (; j < i; ++j) {
            double const x = row.one(j);
            if (Sums) R[j] += x;
            acc[j & 7] += x;
        }
        double const off = reduce8(acc);
        double const d = row.one(i);
        if (Sums) R[i] = off + d;
        total += 2.0 * off + d;
    }
    return total;
}

// Asks for an array that lies far outside the caches (a kept forward array,
// a tree's pair index) some way ahead of a sweep over it, a cache line at a
// time: the hardware alone fetches it too late for a sweep this busy. The
// array holds one entry per pair of K; before the sweep reaches entry k, call
// until(k), or before row i, before_row(i). Write: the sweep writes the array
// rather than reading it. Only up to max_K: beyond, the sweep's other arrays
// are far out too, and the requests slowed a K = 4000 run by 2 %.
template <class T, bool Write = false>
struct FetchAhead {
    static constexpr std::size_t line = 64 / sizeof(T), ahead = (12 << 10) / sizeof(T);  // in entries
    static constexpr int max_K = 1024;
    const T* x;
    std::size_t n;
    std::size_t fetched;
    FetchAhead(const T* x_, int K) : x(x_), n(tri_size(K)), fetched(K <= max_K ? 0 : n) {}
    KETRA_INLINE void until(std::size_t k) {
        for (std::size_t const end = std::min(n, k + ahead); fetched < end; fetched += line)
            __builtin_prefetch(x + fetched, Write ? 1 : 0);
    }
    KETRA_INLINE void before_row(int i) { until(tri_offset(i)); }
};

// Distance-based transition coefficients for carrying values to a position.
inline Coefficients distance_coefficients(int K, double rate, double distance, double total) {
    auto const [stay, jump] = distance_switch_rates(K, rate, distance);
    return coefficients(stay, jump, total);
}

}  // namespace

}  // namespace hmm_kernel
