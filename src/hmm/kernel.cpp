// Numerical core of the haplotype-pair copying model.
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
#include "hmm/kernel.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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

struct Coefficients {
    double aa, ab, bbt;
};

inline Coefficients coefficients(double stay, double jump, double total) {
    double const a = stay - jump;
    double const b = jump;
    return {a * a, a * b, b * b * total};
}

inline double step_value(double ri, double rj, double old, Coefficients c) {
    return ((ri + rj) * c.ab + c.bbt) + c.aa * old;
}

inline double reduce8(const double* a) {
    return ((a[0] + a[1]) + (a[2] + a[3])) + ((a[4] + a[5]) + (a[6] + a[7]));
}

// Four doubles handled as one value; the compiler maps it onto the vector
// registers of the target (two SSE registers on baseline x86-64, one AVX
// register with -march=native), with the same results either way.
// Without AVX the four lanes travel in two SSE registers; everything taking or
// returning one is inlined, so no call passes it in memory.
#pragma GCC diagnostic ignored "-Wpsabi"
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

KETRA_CLONES void divide(std::size_t n, double* __restrict x, double by) {
    for (std::size_t k = 0; k < n; ++k) x[k] /= by;
}

// Row readers and writers for the passes.

struct SumRow {  // the values themselves
    const double* T;
    KETRA_INLINE v4 block(int j) const { return load4(T + j); }
    double one(int j) const { return T[j]; }
};

struct WeightedRow {  // E * B, stored to G unless G is null
    const double* B;
    double* G;
    const double* h;
    RowEmission e;
    KETRA_INLINE v4 block(int j) const {
        v4 const g = load4(B + j) * e.at4(load4(h + j));
        if (G) store4(G + j, g);
        return g;
    }
    double one(int j) const {
        double const g = B[j] * e.at(h, j);
        if (G) G[j] = g;
        return g;
    }
};

// The transition of the previous array X (row sums RX, coefficients c),
// times the emission when Emit: the forward step on F and the backward step on
// G = E * B both have this form; without the emission it forms B from G.
template <bool Emit>
struct TransitionRow {
    const double* X;
    double* Y;
    const double* RX;
    const double* h;
    RowEmission e;
    Coefficients c;
    double ri;
    Lanes k;
    KETRA_INLINE TransitionRow(const double* X_, double* Y_, const double* RX_, const double* h_, RowEmission e_,
                               Coefficients c_, double ri_)
        : X(X_), Y(Y_), RX(RX_), h(h_), e(e_), c(c_), ri(ri_), k(c_, ri_) {}
    KETRA_INLINE v4 block(int j) const {
        v4 v = ((k.ri + load4(RX + j)) * k.ab + k.bbt) + k.aa * load4(X + j);
        if (Emit) v = v * e.at4(load4(h + j));
        store4(Y + j, v);
        return v;
    }
    double one(int j) const {
        double v = step_value(ri, RX[j], X[j], c);
        if (Emit) v = v * e.at(h, j);
        Y[j] = v;
        return v;
    }
};

struct BackwardRow {  // B = transition of E_{s+1} * Bn; yields E_s * B
    const double* Bn;
    double* B;
    const double* Rg;
    const double* hn;
    const double* h;
    RowEmission en, e;
    Coefficients c;
    double ri;
    Lanes k;
    KETRA_INLINE BackwardRow(const double* Bn_, double* B_, const double* Rg_, const double* hn_, const double* h_,
                             RowEmission en_, RowEmission e_, Coefficients c_, double ri_)
        : Bn(Bn_), B(B_), Rg(Rg_), hn(hn_), h(h_), en(en_), e(e_), c(c_), ri(ri_), k(c_, ri_) {}
    KETRA_INLINE v4 block(int j) const {
        v4 const v = ((k.ri + load4(Rg + j)) * k.ab + k.bbt) + k.aa * (load4(Bn + j) * en.at4(load4(hn + j)));
        store4(B + j, v);
        return v * e.at4(load4(h + j));
    }
    double one(int j) const {
        double const v = step_value(ri, Rg[j], Bn[j] * en.at(hn, j), c);
        B[j] = v;
        return v * e.at(h, j);
    }
};

struct ProductRow {  // P = F * B
    const double* F;
    const double* B;
    double* P;
    KETRA_INLINE v4 block(int j) const {
        v4 const v = load4(F + j) * load4(B + j);
        store4(P + j, v);
        return v;
    }
    double one(int j) const { return P[j] = F[j] * B[j]; }
};

struct CarriedProductRow {  // P = (F carried to the position) * (B carried to it)
    const double* F;
    const double* B;
    double* P;
    const double* RF;
    const double* RB;
    Coefficients cf, cb;
    double fi, bi;
    Lanes kf, kb;
    KETRA_INLINE CarriedProductRow(const double* F_, const double* B_, double* P_, const double* RF_,
                                   const double* RB_, Coefficients cf_, Coefficients cb_, double fi_, double bi_)
        : F(F_), B(B_), P(P_), RF(RF_), RB(RB_), cf(cf_), cb(cb_), fi(fi_), bi(bi_), kf(cf_, fi_), kb(cb_, bi_) {}
    KETRA_INLINE v4 block(int j) const {
        v4 const f = ((kf.ri + load4(RF + j)) * kf.ab + kf.bbt) + kf.aa * load4(F + j);
        v4 const b = ((kb.ri + load4(RB + j)) * kb.ab + kb.bbt) + kb.aa * load4(B + j);
        v4 const v = f * b;
        store4(P + j, v);
        return v;
    }
    double one(int j) const {
        double const f = ((fi + RF[j]) * cf.ab + cf.bbt) + cf.aa * F[j];
        double const b = ((bi + RB[j]) * cb.ab + cb.bbt) + cb.aa * B[j];
        return P[j] = f * b;
    }
};

struct DivideRow {  // P = P / by
    double* P;
    double by;
    v4 by4;
    KETRA_INLINE DivideRow(double* P_, double by_) : P(P_), by(by_), by4(splat(by_)) {}
    KETRA_INLINE v4 block(int j) const {
        v4 const v = load4(P + j) / by4;
        store4(P + j, v);
        return v;
    }
    double one(int j) const { return P[j] /= by; }
};

}  // namespace

std::pair<double, double> distance_switch_rates(int K, double rate, double distance) {
    double const e = std::exp(-rate * distance / K);
    double const jump = (1.0 - e) / K;
    double const stay = e + jump;
    return {stay, jump};
}

namespace {

// Distance-based transition coefficients for carrying values to a position.
Coefficients distance_coefficients(int K, double rate, double distance, double total) {
    auto const [stay, jump] = distance_switch_rates(K, rate, distance);
    return coefficients(stay, jump, total);
}

}  // namespace

// ---- Sums ------------------------------------------------------------------

KETRA_CLONES double row_sums(int K, const double* T, double* R) {
    return sweep(K, R, [&](int i) { return SumRow{T + tri_offset(i)}; });
}

// ---- Recursions ------------------------------------------------------------

double forward_first(int K, const double* h, const double* ecol, double* F, double* R) {
    double const pairs = static_cast<double>(K * K);
    for (int i = 0; i < K; ++i) {
        std::size_t const o = tri_offset(i);
        RowEmission const e(h, ecol, i);
        for (int j = 0; j <= i; ++j) F[o + j] = e.at(h, j) / pairs;
    }
    return row_sums(K, F, R);
}

double forward_step(int K, double stay, double jump, const double* Fp, const double* Rp, double Tp,
                                 const double* h, const double* ecol, double* F, double* R) {
    double const total = gamma_step(K, stay, jump, Fp, Rp, Tp, h, ecol, F, R);
    if (total < underflow_limit) {
        divide(tri_size(K), F, total);
        divide(static_cast<std::size_t>(K), R, total);
    }
    return total;
}

KETRA_CLONES double weighted(int K, const double* B, const double* h, const double* ecol, double* G, double* R) {
    return sweep(K, R, [&](int i) {
        std::size_t const o = tri_offset(i);
        return WeightedRow{B + o, G ? G + o : nullptr, h, RowEmission(h, ecol, i)};
    });
}

double backward_last(int K, const double* h, const double* ecol, double* B, double* R, bool want_gamma) {
    std::fill(B, B + tri_size(K), 1.0);
    if (!want_gamma) return 0.0;
    double total = weighted(K, B, h, ecol, nullptr, R);
    if (total < underflow_limit) {
        divide(tri_size(K), B, total);
        divide(static_cast<std::size_t>(K), R, total);
        total = 1.0;
    }
    return total;
}

KETRA_CLONES double backward_step(int K, double stay, double jump, const double* Bn, const double* hn,
                                  const double* ecoln, const double* Rg, double Tg, const double* h,
                                  const double* ecol, double* B, double* Rg_out, bool want_gamma) {
    Coefficients const c = coefficients(stay, jump, Tg);
    // At the first SNP the sums are not needed; they land in Rg_out unused.
    double total = sweep(K, Rg_out, [&](int i) {
        std::size_t const o = tri_offset(i);
        return BackwardRow{Bn + o, B + o, Rg, hn, h, RowEmission(hn, ecoln, i), RowEmission(h, ecol, i), c, Rg[i]};
    });
    if (!want_gamma) return 0.0;
    if (total < underflow_limit) {
        divide(tri_size(K), B, total);
        divide(static_cast<std::size_t>(K), Rg_out, total);
        total = 1.0;
    }
    return total;
}

KETRA_CLONES double gamma_step(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg,
                               const double* h, const double* ecol, double* G, double* Rg_out) {
    Coefficients const c = coefficients(stay, jump, Tg);
    return sweep(K, Rg_out, [&](int i) {
        std::size_t const o = tri_offset(i);
        return TransitionRow<true>{Gn + o, G + o, Rg, h, RowEmission(h, ecol, i), c, Rg[i]};
    });
}

KETRA_CLONES double backward_from_gamma(int K, double stay, double jump, const double* Gn, const double* Rg,
                                        double Tg, double* B, double* R) {
    Coefficients const c = coefficients(stay, jump, Tg);
    auto const row = [&](int i) {
        std::size_t const o = tri_offset(i);
        return TransitionRow<false>{Gn + o, B + o, Rg, nullptr, RowEmission(), c, Rg[i]};
    };
    if (R) return sweep(K, R, row);
    sweep<false>(K, nullptr, row);
    return 0.0;
}

// ---- Posterior -------------------------------------------------------------

namespace {

// The posterior with the flanks' row sums and totals given where known (RF or
// RB null: computed here). Two passes: the product with its total, then the
// division with the haplotype probabilities.
KETRA_CLONES void posterior_from(int K, double rate, double left_distance, double right_distance,
                                 const double* F, const double* RF, double TF, const double* B, const double* RB,
                                 double TB, double* P, double* scratch, double* m) {
    double total;
    if (left_distance == 0.0 || right_distance == 0.0) {
        total = sweep<false>(K, nullptr, [&](int i) {
            std::size_t const o = tri_offset(i);
            return ProductRow{F + o, B + o, P + o};
        });
    } else {
        if (!RF) {
            TF = row_sums(K, F, scratch);
            RF = scratch;
        }
        if (!RB) {
            TB = row_sums(K, B, scratch + K);
            RB = scratch + K;
        }
        Coefficients const cf = distance_coefficients(K, rate, left_distance, TF);
        Coefficients const cb = distance_coefficients(K, rate, right_distance, TB);
        total = sweep<false>(K, nullptr, [&](int i) {
            std::size_t const o = tri_offset(i);
            return CarriedProductRow{F + o, B + o, P + o, RF, RB, cf, cb, RF[i], RB[i]};
        });
    }
    if (m)
        sweep(K, m, [&](int i) { return DivideRow{P + tri_offset(i), total}; });
    else
        divide(tri_size(K), P, total);
}

}  // namespace

void posterior(int K, double rate, double left_distance, double right_distance, const double* F, const double* B,
               double* P, double* scratch, double* m) {
    posterior_from(K, rate, left_distance, right_distance, F, nullptr, 0.0, B, nullptr, 0.0, P, scratch, m);
}

// ---- Branch sums -----------------------------------------------------------

BranchLayout::BranchLayout(int K_, std::vector<int> a, std::vector<int> b)
    : K(K_), child_a(std::move(a)), child_b(std::move(b)) {
    int const n = static_cast<int>(child_a.size());
    if (K < 0 || n < K || static_cast<int>(child_b.size()) != n)
        throw std::invalid_argument("tree layout: node table does not cover the leaves");
    parent.assign(n, -1);
    for (int v = 0; v < n; ++v) {
        bool const leaf = v < K;
        if (leaf != (child_a[v] < 0) || leaf != (child_b[v] < 0))
            throw std::invalid_argument("tree layout: leaves must have no children, merges two");
        if (leaf) continue;
        for (int c : {child_a[v], child_b[v]}) {
            if (c >= v || parent[c] != -1) throw std::invalid_argument("tree layout: bad child id");
            parent[c] = v;
        }
    }
    // Depth-first from every root: child_a's leaves, then child_b's, so each
    // node's leaves are one contiguous run of order.
    lo.assign(n, 0);
    hi.assign(n, 0);
    order.clear();
    order.reserve(K);
    std::vector<std::pair<int, bool>> stack;
    for (int r = 0; r < n; ++r) {
        if (parent[r] != -1) continue;
        stack.push_back({r, false});
        while (!stack.empty()) {
            auto [v, done] = stack.back();
            stack.pop_back();
            if (done) {
                hi[v] = static_cast<int>(order.size());
                continue;
            }
            lo[v] = static_cast<int>(order.size());
            if (v < K) {
                order.push_back(v);
                hi[v] = lo[v] + 1;
                continue;
            }
            stack.push_back({v, true});
            stack.push_back({child_b[v], false});
            stack.push_back({child_a[v], false});
        }
    }
    rank.assign(K, 0);
    for (int p = 0; p < K; ++p) rank[order[p]] = p;
    row_start.assign(n, 0);
    std::size_t used = 0;
    for (int v = K; v < n; ++v) {
        row_start[v] = used;
        used += static_cast<std::size_t>(hi[child_b[v]] - lo[child_b[v]]);
    }
}

namespace {

// Hands each leaf x, in order of id, with the whole of P's row x laid out
// plainly (full[y] = P(x, y) for every y) to use(x, full). Leaves are taken
// eight consecutive ids at a time. For leaf x of the block, P(x, y) lies in
// row x of P for y <= x and in column x otherwise; the columns of the block
// are copied first, one cache line of every later row into a strip, so that
// the rows are built from rows and strip in the caches instead of from P at
// random.
template <class Use>
KETRA_INLINE void for_each_full_row(BranchLayout const& layout, const double* P, std::vector<double>& strip,
                                    Use const& use) {
    int const K = layout.K;
    constexpr int block = 8;
    strip.resize(static_cast<std::size_t>(block + 1) * K);
    double* full = strip.data() + static_cast<std::size_t>(block) * K;
    for (int X = 0; X < K; X += block) {
        int const w = std::min(block, K - X);
        for (int y = X; y < K; ++y) {
            double* to = &strip[static_cast<std::size_t>(y) * block];
            const double* from = P + tri_offset(y) + X;
            // Each row is a new cache line at an irregular stride, which the
            // hardware does not foresee: ask for one some rows ahead.
            if (y + 16 < K) __builtin_prefetch(P + tri_offset(y + 16) + X);
            if (y >= X + block - 1 && w == block) {
                for (int u = 0; u < block; ++u) to[u] = from[u];
            } else {
                int const columns = std::min(w, y - X + 1);  // row y holds columns up to y
                for (int u = 0; u < columns; ++u) to[u] = from[u];
            }
        }
        for (int u = 0; u < w; ++u) {
            // The whole of P's row x, laid out plainly first: choosing between
            // row and strip per element would branch at random.
            int const x = X + u;
            const double* row = P + tri_offset(x);
            for (int y = 0; y <= x; ++y) full[y] = row[y];
            for (int y = x + 1; y < K; ++y) full[y] = strip[static_cast<std::size_t>(y) * block + u];
            use(x, full);
        }
    }
}

// Q[p][q] = P(order[p], order[q]) for q < p, in the flat triangular layout.
KETRA_INLINE void reorder_pairs(BranchLayout const& layout, const double* P, double* Q, std::vector<double>& strip) {
    const int* order = layout.order.data();
    for_each_full_row(layout, P, strip, [&](int x, const double* full) {
        int const p = layout.rank[x];
        double* out = Q + tri_offset(p);
        for (int q = 0; q < p; ++q) out[q] = full[order[q]];
    });
}

// Beyond this K, branch sums skip the copy of P (see leaf_row_sums).
constexpr int copied_limit = 1024;

// The row sums the branch sums add up, taken straight from each leaf's full
// row, with no copy of P: for panels whose P is far beyond the caches, where
// writing the copy and reading it back costs more than the sums. Leaf x at
// depth-first place p lies under child b of each merge v above it that it
// reaches through b; there, its row sum over child a's leaves (serial, in
// depth-first order) goes to rows[row_start[v] + p - lo[b]].
KETRA_INLINE void leaf_row_sums(BranchLayout const& layout, const double* P, double* rows, std::vector<double>& strip) {
    const int* order = layout.order.data();
    for_each_full_row(layout, P, strip, [&](int x, const double* full) {
        int const p = layout.rank[x];
        for (int c = x, v = layout.parent[x]; v >= 0; c = v, v = layout.parent[v]) {
            int const b = layout.child_b[v];
            if (b != c) continue;
            int const a = layout.child_a[v];
            double row = 0.0;
            for (int q = layout.lo[a]; q < layout.hi[a]; ++q) row += full[order[q]];
            rows[layout.row_start[v] + (p - layout.lo[b])] = row;
        }
    });
}

// Sum over the pairs with one leaf under each child of merge v, with
// pair(p, q) = P(order[p], order[q]) for q < p; a's leaves come before b's in
// depth-first order. Each row's sum is serial and the rows are added in
// order; four rows run side by side, so the additions overlap without
// changing their order.
template <class Pair>
KETRA_INLINE double cross_sum(BranchLayout const& layout, int v, Pair const& pair) {
    int const a = layout.child_a[v], b = layout.child_b[v];
    double cross = 0.0;
    int const qa = layout.lo[a], qb = layout.hi[a];
    int p = layout.lo[b];
    for (; p + 4 <= layout.hi[b]; p += 4) {
        double r0 = 0.0, r1 = 0.0, r2 = 0.0, r3 = 0.0;
        for (int q = qa; q < qb; ++q) {
            r0 += pair(p, q);
            r1 += pair(p + 1, q);
            r2 += pair(p + 2, q);
            r3 += pair(p + 3, q);
        }
        cross += r0;
        cross += r1;
        cross += r2;
        cross += r3;
    }
    for (; p < layout.hi[b]; ++p) {
        double row = 0.0;
        for (int q = qa; q < qb; ++q) row += pair(p, q);
        cross += row;
    }
    return cross;
}

// The branch sums, with cross_of(v) the sum cross_sum gives for merge v.
template <class Cross>
KETRA_INLINE void branch_sums(BranchLayout const& layout, const double* P, const double* m, double* both, double* one,
                              double* work, Cross const& cross_of) {
    int const n = layout.n_nodes();
    double* W = work;      // ordered-pair sum of P within the node's leaves
    double* S = work + n;  // sum of m over the node's leaves
    for (int v = 0; v < n; ++v) {
        if (v < layout.K) {
            W[v] = P[tri_offset(v) + v];
            S[v] = m[v];
        } else {
            // Pairs with one leaf under each child meet at this node only.
            int const a = layout.child_a[v], b = layout.child_b[v];
            W[v] = (W[a] + W[b]) + 2.0 * cross_of(v);
            S[v] = S[a] + S[b];
        }
        both[v] = W[v];
        one[v] = 2.0 * (S[v] - W[v]);
    }
}

}  // namespace

KETRA_CLONES void branch_probabilities(BranchLayout const& layout, const double* P, const double* m, double* both,
                                       double* one, double* work, double* reordered) {
    int const K = layout.K;
    if (reordered && K > copied_limit) {
        thread_local std::vector<double> strip;
        leaf_row_sums(layout, P, reordered, strip);
        // The rows of each merge, added in depth-first order as cross_sum does.
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            int const b = layout.child_b[v];
            const double* rows = reordered + layout.row_start[v];
            double cross = 0.0;
            for (int t = 0; t < layout.hi[b] - layout.lo[b]; ++t) cross += rows[t];
            return cross;
        });
        return;
    }
    if (reordered) {
        thread_local std::vector<double> strip;
        reorder_pairs(layout, P, reordered, strip);
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            return cross_sum(layout, v, [reordered](int p, int q) { return reordered[tri_offset(p) + q]; });
        });
    } else {
        const int* order = layout.order.data();
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            return cross_sum(layout, v, [P, order](int p, int q) {
                int const x = order[p], y = order[q];
                return P[x > y ? tri_offset(x) + y : tri_offset(y) + x];
            });
        });
    }
}

// ---- Flanks and schedule ---------------------------------------------------

std::vector<Flank> find_flanks(std::vector<double> const& snp_positions, std::vector<double> const& rate_per_base,
                               std::vector<double> const& positions) {
    std::vector<Flank> flanks;
    flanks.reserve(positions.size());
    for (double t : positions) {
        if (snp_positions.empty() || !(t >= snp_positions.front() && t <= snp_positions.back()))
            throw std::out_of_range("position outside the SNP range");
        auto const right = std::lower_bound(snp_positions.begin(), snp_positions.end(), t);
        auto const left = std::upper_bound(snp_positions.begin(), snp_positions.end(), t) - 1;
        Flank f;
        f.left = static_cast<int>(left - snp_positions.begin());
        f.right = static_cast<int>(right - snp_positions.begin());
        if (*left != *right) {
            f.left_distance = t - *left;
            f.right_distance = *right - t;
        }
        f.rate = rate_per_base[f.right];
        flanks.push_back(f);
    }
    return flanks;
}

Schedule::Schedule(int L_, std::vector<Flank> f) : L(L_), flanks(std::move(f)) {
    keep_slot.assign(L, -1);
    by_right_start.assign(L + 1, 0);
    for (Flank const& x : flanks) {
        if (x.left < 0 || x.right >= L || x.left > x.right) throw std::out_of_range("flank outside the SNP table");
        ++by_right_start[x.right + 1];
    }
    for (int s = 0; s < L; ++s) by_right_start[s + 1] += by_right_start[s];
    by_right.assign(flanks.size(), 0);
    std::vector<int> fill(by_right_start.begin(), by_right_start.end() - 1);
    for (int p = 0; p < static_cast<int>(flanks.size()); ++p) by_right[fill[flanks[p].right]++] = p;
    n_kept = 0;
    for (int s = 0; s < L; ++s) keep_slot[s] = -1;
    for (Flank const& x : flanks)
        if (keep_slot[x.left] < 0) keep_slot[x.left] = -2;
    for (int s = 0; s < L; ++s)
        if (keep_slot[s] == -2) keep_slot[s] = n_kept++;
}

// ---- Checkpoints -------------------------------------------------------------

namespace {

// Builds the plan by playing the backward pass's uses through: range(lo, hi, f)
// makes kept arrays hi, hi-1, ..., lo available in that order, with lo held
// already (or lo = -1, the start, which takes no slot) and f slots free.
class Planner {
public:
    Planner(int n_kept, int slots) {
        plan.slots = slots;
        plan.slot_of.assign(n_kept, -1);
        plan.sweeps_before.assign(n_kept, 0);
        for (int k = slots - 1; k >= 0; --k) free_.push_back(k);
    }

    void range(int lo, int hi, int f) {
        int const n = hi - lo;
        if (n == 0) return use(lo);
        if (n <= f) {  // everything fits: one sweep stores it all
            std::vector<int> all;
            for (int k = lo + 1; k <= hi; ++k) all.push_back(k);
            sweep(lo, hi, all);
            for (int k = hi; k >= lo; --k) use(k);
            return;
        }
        // Split lo..hi into segments 0..c starting at start[t]; segment t > 0
        // starts with a checkpoint, and while it is worked on, checkpoints
        // 1..t are held, so f - t slots are free: it fits in one more sweep
        // when it has at most f - t + 1 arrays. The top segment is stored
        // during the sweep that lays the checkpoints.
        int const total = n + 1;
        auto capacity = [&](int c) { return (c + 1) * (f + 1) - c * (c + 1) / 2; };
        int c = 1;
        while (c < f && capacity(c) < total) ++c;
        std::vector<int> size(c + 1, 1);
        bool const fits = capacity(c) >= total;
        if (fits) {
            int rest = total;
            for (int t = c; t >= 1; --t) {
                size[t] = std::min(f - t + 1, rest - t);
                rest -= size[t];
            }
            size[0] = rest;
        } else {
            // Too long for one level: the top segment is its checkpoint
            // alone (no slot is left for more), the rest is shared by
            // capacity and split again below.
            int const shared = total - 1;
            int weight = 0;
            for (int t = 0; t < c; ++t) weight += f - t + 1;
            int given = 0;
            for (int t = c - 1; t >= 1; --t) {
                size[t] = std::max(1, static_cast<int>(static_cast<long>(shared) * (f - t + 1) / weight));
                given += size[t];
            }
            size[0] = shared - given;
            size[c] = 1;
        }
        std::vector<int> start(c + 1, lo);
        for (int t = 1; t <= c; ++t) start[t] = start[t - 1] + size[t - 1];
        std::vector<int> store(start.begin() + 1, start.end());
        for (int k = start[c] + 1; k <= hi; ++k) store.push_back(k);
        sweep(lo, hi, store);
        for (int k = hi; k >= start[c]; --k) use(k);
        for (int t = c - 1; t >= 1; --t) range(start[t], start[t + 1] - 1, f - t);
        range(lo, start[1] - 1, f);
    }

    CheckpointPlan plan;

private:
    void sweep(int from, int to, std::vector<int> const& store) {
        for (int k : store) {
            plan.slot_of[k] = free_.back();
            free_.pop_back();
        }
        plan.sweeps.push_back({from, to, store});
    }
    void use(int k) {
        if (k < 0) return;
        plan.sweeps_before[k] = static_cast<int>(plan.sweeps.size());
        free_.push_back(plan.slot_of[k]);
    }
    std::vector<int> free_;
};

}  // namespace

CheckpointPlan plan_checkpoints(int n_kept, int slots) {
    Planner planner(n_kept, std::max(slots, 1));
    if (n_kept > 0) planner.range(-1, n_kept - 1, planner.plan.slots);
    return std::move(planner.plan);
}

// ---- Per-individual pipeline -----------------------------------------------

int Workspace::kept_slots(int K, std::size_t kept_budget) {
    std::size_t const per = (tri_size(K) + static_cast<std::size_t>(K)) * sizeof(double);
    std::size_t const slots = per == 0 ? 1 : kept_budget / per;
    return static_cast<int>(std::max<std::size_t>(1, std::min<std::size_t>(slots, 1 << 20)));
}

std::size_t Workspace::bytes(int K, Schedule const& schedule, std::size_t kept_budget) {
    std::size_t const n = tri_size(K), k = static_cast<std::size_t>(K);
    std::size_t const slots =
        std::min<std::size_t>(static_cast<std::size_t>(schedule.n_kept), kept_slots(K, kept_budget));
    // f, b, g x 2, p; row sums rf x 2, rg x 2, rb, m, scratch (2K).
    return sizeof(double) * (5 * n + 9 * k + slots * (n + k)) + sizeof(Kept) * slots;
}

void Workspace::reserve(int K, int slots) {
    std::size_t const n = tri_size(K);
    if (K != K_) {
        K_ = K;
        f_.assign(n, 0.0);
        b_.assign(n, 0.0);
        p_.assign(n, 0.0);
        g_[0].assign(n, 0.0);
        g_[1].assign(n, 0.0);
        for (int k = 0; k < 2; ++k) {
            rf_[k].assign(K, 0.0);
            rg_[k].assign(K, 0.0);
        }
        rb_.assign(K, 0.0);
        m_.assign(K, 0.0);
        scratch_.assign(2 * static_cast<std::size_t>(K), 0.0);
        kept_.clear();
    }
    if (static_cast<int>(kept_.size()) < slots) {
        kept_.resize(slots);
        for (Kept& x : kept_) {
            x.F.resize(n);
            x.R.resize(K);
        }
    }
}

// Forward values from a held array (or the first SNP) up to kept index
// step.to, in f_, storing the listed kept arrays in their slots.
// Forward values from a held array (or the first SNP) up to kept index
// step.to. A step that reaches a kept SNP writes straight into its slot and the
// next step reads from there; the others work in f_.
void Workspace::sweep(Panel const& panel, const std::uint8_t* genotypes, CheckpointPlan::Sweep const& step) {
    int const K = panel.K;
    std::size_t next = 0;
    // Where the values of SNP s go: its slot when it is stored, else f_.
    auto target = [&](int s) -> Kept* {
        if (next < step.store.size() && kept_snp_[step.store[next]] == s) return &kept_[plan_.slot_of[step.store[next++]]];
        return nullptr;
    };
    auto finish = [&](Kept* k, double total, const double* R) {
        if (!k) return;
        std::memcpy(k->R.data(), R, K * sizeof(double));
        k->total = total;
        k->rescaled = total < underflow_limit;
    };
    int r = 0;
    const double* Fp;
    const double* Rp;
    double total;
    int s;
    if (step.from < 0) {
        s = 0;
        Kept* const k = target(0);
        double* const F = k ? k->F.data() : f_.data();
        total = forward_first(K, panel.h(0), panel.emission[genotypes[0]], F, rf_[r].data());
        ++forward_steps_;
        finish(k, total, rf_[r].data());
        if (k) k->rescaled = false;  // the first SNP is never rescaled
        Fp = F;
    } else {
        Kept const& from = kept_[plan_.slot_of[step.from]];
        s = kept_snp_[step.from];
        Fp = from.F.data();
        Rp = from.R.data();
        total = from.total;
        std::memcpy(rf_[r].data(), from.R.data(), K * sizeof(double));
    }
    Rp = rf_[r].data();
    int const last = kept_snp_[step.to];
    while (s < last) {
        ++s;
        Kept* const k = target(s);
        double* const F = k ? k->F.data() : f_.data();
        total = forward_step(K, panel.stay[s], panel.jump[s], Fp, Rp, total, panel.h(s),
                             panel.emission[genotypes[s]], F, rf_[1 - r].data());
        ++forward_steps_;
        r = 1 - r;
        finish(k, total, rf_[r].data());
        Fp = F;
        Rp = rf_[r].data();
    }
}

void Workspace::run(Panel const& panel, Schedule const& schedule, const std::uint8_t* genotypes,
                    PosteriorSink sink) {
    int const K = panel.K, L = panel.L;
    forward_steps_ = 0;
    if (L == 0 || K == 0 || schedule.flanks.empty()) return;
    if (schedule.L != L) throw std::invalid_argument("schedule does not match the panel");
    // Positions in the order the backward pass finishes them: by right flank
    // descending, then by left flank descending, so that the kept arrays are
    // used in descending order, as the checkpoint plan needs. Flanks that do
    // not allow that order (only made up ones) keep every array.
    visit_.assign(schedule.by_right.begin(), schedule.by_right.end());
    bool descending = true;
    int previous = L;
    for (int s = L - 1; s >= 0; --s) {
        auto const first = visit_.begin() + schedule.by_right_start[s];
        auto const last = visit_.begin() + schedule.by_right_start[s + 1];
        std::stable_sort(first, last, [&](int a, int b) { return schedule.flanks[a].left > schedule.flanks[b].left; });
        for (auto it = first; it != last; ++it) {
            descending = descending && schedule.flanks[*it].left <= previous;
            previous = schedule.flanks[*it].left;
        }
    }
    carried_.assign(L, false);
    for (Flank const& f : schedule.flanks)
        if (f.left_distance != 0.0 && f.right_distance != 0.0) carried_[f.right] = true;
    int const slots = descending ? std::min(schedule.n_kept, kept_slots(K, kept_budget_)) : schedule.n_kept;
    plan_ = plan_checkpoints(schedule.n_kept, slots);
    kept_snp_.assign(schedule.n_kept, 0);
    for (int s = 0; s < L; ++s)
        if (schedule.keep_slot[s] >= 0) kept_snp_[schedule.keep_slot[s]] = s;
    reserve(K, plan_.slots);
    double* B = b_.data();
    auto ecol = [&](int s) { return panel.emission[genotypes[s]]; };

    // Kept forward arrays are used in descending order; the sweeps that make
    // each available run when the pass first needs it.
    std::size_t sweeps_done = 0;
    auto kept = [&](int snp) -> Kept const& {
        int const k = schedule.keep_slot[snp];
        while (static_cast<int>(sweeps_done) < plan_.sweeps_before[k])
            sweep(panel, genotypes, plan_.sweeps[sweeps_done++]);
        return kept_[plan_.slot_of[k]];
    };

    // Backward in place on B; the positions with right flank s are finished
    // once B_s is final, that is after its rescaling. Row sums of B are formed
    // only for positions between SNPs, once per SNP.
    bool b_sums = false;
    double tb = 0.0;
    double* m = sink.wants_haplotypes() ? m_.data() : nullptr;
    auto finish = [&](int s) {
        for (int k = schedule.by_right_start[s]; k < schedule.by_right_start[s + 1]; ++k) {
            int const p = visit_[k];
            Flank const& f = schedule.flanks[p];
            Kept const& x = kept(f.left);
            bool const carried = f.left_distance != 0.0 && f.right_distance != 0.0;
            if (carried && !b_sums) {
                tb = row_sums(K, B, rb_.data());
                b_sums = true;
            }
            posterior_from(K, f.rate, f.left_distance, f.right_distance, x.F.data(),
                           x.rescaled ? nullptr : x.R.data(), x.total, B, rb_.data(), tb, p_.data(),
                           scratch_.data(), m);
            sink(p, p_.data(), m);
        }
    };
    auto has_positions = [&](int s) { return schedule.by_right_start[s] < schedule.by_right_start[s + 1]; };
    int lowest = 0;  // no B below the lowest right flank is needed
    while (!has_positions(lowest)) ++lowest;
    // The pass runs on G_s = E_s * B_s in two rolling arrays, the cheaper
    // form of the recursion; B_s itself is formed from G_{s+1} only where a
    // position needs it or the step must rescale. Rescaling divides B_s, as
    // the recursion on B does, and forms G_s again from it, so every value
    // is the same bit for bit.
    int r = 0;
    double* G[2] = {g_[0].data(), g_[1].data()};
    double tg = backward_last(K, panel.h(L - 1), ecol(L - 1), B, rg_[r].data(), L > 1);
    if (lowest < L - 1) weighted(K, B, panel.h(L - 1), ecol(L - 1), G[r], scratch_.data());
    finish(L - 1);
    for (int s = L - 2; s >= lowest; --s) {
        double const stay = panel.stay[s + 1], jump = panel.jump[s + 1];
        // B's row sums come with the step where a position between SNPs needs them.
        bool const sums = carried_[s];
        bool const have_b = has_positions(s);
        double tb_step = 0.0;
        if (have_b)
            tb_step = backward_from_gamma(K, stay, jump, G[r], rg_[r].data(), tg, B, sums ? rb_.data() : nullptr);
        bool rescaled = false;
        double next_tg = 0.0;
        if (s > 0) {
            next_tg = gamma_step(K, stay, jump, G[r], rg_[r].data(), tg, panel.h(s), ecol(s), G[1 - r],
                                 rg_[1 - r].data());
            if (next_tg < underflow_limit) {
                if (!have_b) backward_from_gamma(K, stay, jump, G[r], rg_[r].data(), tg, B);
                divide(tri_size(K), B, next_tg);
                divide(static_cast<std::size_t>(K), rg_[1 - r].data(), next_tg);
                weighted(K, B, panel.h(s), ecol(s), G[1 - r], scratch_.data());
                next_tg = 1.0;
                rescaled = true;
            }
        }
        tg = next_tg;
        r = 1 - r;
        b_sums = sums && !rescaled;
        if (b_sums) tb = tb_step;
        finish(s);
    }
}

}  // namespace hmm_kernel
