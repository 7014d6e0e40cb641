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

// Emission of the pairs of one row: e0 for columns with allele 0, e1 for
// allele 1, where e0 = E[h_i][g], e1 = E[h_i + 1][g]. Selected by bit masks,
// so that E[h_i + h_j][g] comes out exactly and without branches.
struct RowEmission {
    double e0, e1;
    RowEmission(const double* h, const double* ecol, int i) {
        int const hi = static_cast<int>(h[i]);
        e0 = ecol[hi];
        e1 = ecol[hi + 1];
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
#ifdef __AVX__
        return hj != splat(0.0) ? splat(e1) : splat(e0);  // one compare and one blend
#else
        // Without AVX a lane compare would be split into branches; integer
        // lanes instead: 1.0 has bit 61 set, 0.0 has no bit set.
        m4 const mask = (m4{0, 0, 0, 0}) - (((m4)hj >> 61) & 1);
        return (v4)(((m4)splat(e0) & ~mask) | ((m4)splat(e1) & mask));
#endif
    }
};

// One pass over a pair array. make_row(i) gives an object for row i with
// v4 block(j), the values of columns j..j+3 (j + 3 < i), and double one(j),
// the value of column j <= i; both also store whatever the pass writes. Each
// off-diagonal value is added to R[j] and to partial sum j % 8 of its row;
// columns come in blocks of eight (two halves of four), one block of four
// where it fits, then single columns. Returns the total.
template <class MakeRow>
KETRA_INLINE double sweep(int K, double* R, MakeRow const& make_row) {
    double total = 0.0;
    for (int i = 0; i < K; ++i) {
        auto const row = make_row(i);
        v4 lo = splat(0.0), hi = splat(0.0);
        int j = 0;
        for (; j + 8 <= i; j += 8) {
            v4 const x = row.block(j);
            store4(R + j, load4(R + j) + x);
            lo += x;
            v4 const y = row.block(j + 4);
            store4(R + j + 4, load4(R + j + 4) + y);
            hi += y;
        }
        if (j + 4 <= i) {
            v4 const x = row.block(j);
            store4(R + j, load4(R + j) + x);
            lo += x;
            j += 4;
        }
        double acc[8];
        std::memcpy(acc, &lo, sizeof lo);
        std::memcpy(acc + 4, &hi, sizeof hi);
        for (; j < i; ++j) {
            double const x = row.one(j);
            R[j] += x;
            acc[j & 7] += x;
        }
        double const off = reduce8(acc);
        double const d = row.one(i);
        R[i] = off + d;
        total += 2.0 * off + d;
    }
    return total;
}

void divide(std::size_t n, double* __restrict x, double by) {
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

struct ForwardRow {  // F = transition of Fp, times the emission
    const double* Fp;
    double* F;
    const double* Rp;
    const double* h;
    RowEmission e;
    Coefficients c;
    double ri;
    KETRA_INLINE v4 block(int j) const {
        v4 const v = (((splat(ri) + load4(Rp + j)) * splat(c.ab) + splat(c.bbt)) + splat(c.aa) * load4(Fp + j)) *
                     e.at4(load4(h + j));
        store4(F + j, v);
        return v;
    }
    double one(int j) const {
        double const v = step_value(ri, Rp[j], Fp[j], c) * e.at(h, j);
        F[j] = v;
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
    KETRA_INLINE v4 block(int j) const {
        v4 const v = ((splat(ri) + load4(Rg + j)) * splat(c.ab) + splat(c.bbt)) +
                     splat(c.aa) * (load4(Bn + j) * en.at4(load4(hn + j)));
        store4(B + j, v);
        return v * e.at4(load4(h + j));
    }
    double one(int j) const {
        double const v = step_value(ri, Rg[j], Bn[j] * en.at(hn, j), c);
        B[j] = v;
        return v * e.at(h, j);
    }
};

struct GammaRow {  // G = transition of Gn, times the emission
    const double* Gn;
    double* G;
    const double* Rg;
    const double* h;
    RowEmission e;
    Coefficients c;
    double ri;
    KETRA_INLINE v4 block(int j) const {
        v4 const v = (((splat(ri) + load4(Rg + j)) * splat(c.ab) + splat(c.bbt)) + splat(c.aa) * load4(Gn + j)) *
                     e.at4(load4(h + j));
        store4(G + j, v);
        return v;
    }
    double one(int j) const {
        double const v = step_value(ri, Rg[j], Gn[j], c) * e.at(h, j);
        G[j] = v;
        return v;
    }
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

double row_sums(int K, const double* T, double* R) {
    return sweep(K, R, [&](int i) { return SumRow{T + tri_offset(i)}; });
}

double tri_total(int K, const double* T) {
    double total = 0.0;
    for (int i = 0; i < K; ++i) {
        const double* Ti = T + tri_offset(i);
        double acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        int j = 0;
        for (; j + 8 <= i; j += 8)
            for (int l = 0; l < 8; ++l) acc[l] += Ti[j + l];
        for (; j < i; ++j) acc[j & 7] += Ti[j];
        total += 2.0 * reduce8(acc) + Ti[i];
    }
    return total;
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
    Coefficients const c = coefficients(stay, jump, Tp);
    double const total = sweep(K, R, [&](int i) {
        std::size_t const o = tri_offset(i);
        return ForwardRow{Fp + o, F + o, Rp, h, RowEmission(h, ecol, i), c, Rp[i]};
    });
    if (total < underflow_limit) {
        divide(tri_size(K), F, total);
        divide(static_cast<std::size_t>(K), R, total);
    }
    return total;
}

double weighted(int K, const double* B, const double* h, const double* ecol, double* G, double* R) {
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

double backward_step(int K, double stay, double jump, const double* Bn, const double* hn, const double* ecoln,
                     const double* Rg, double Tg, const double* h, const double* ecol, double* B, double* Rg_out,
                     bool want_gamma) {
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

double gamma_step(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg, const double* h,
                  const double* ecol, double* G, double* Rg_out) {
    Coefficients const c = coefficients(stay, jump, Tg);
    return sweep(K, Rg_out, [&](int i) {
        std::size_t const o = tri_offset(i);
        return GammaRow{Gn + o, G + o, Rg, h, RowEmission(h, ecol, i), c, Rg[i]};
    });
}

void backward_from_gamma(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg, double* B) {
    Coefficients const c = coefficients(stay, jump, Tg);
    for (int i = 0; i < K; ++i) {
        std::size_t const o = tri_offset(i);
        double const ri = Rg[i];
        for (int j = 0; j <= i; ++j) B[o + j] = step_value(ri, Rg[j], Gn[o + j], c);
    }
}

// ---- Posterior -------------------------------------------------------------

void posterior(int K, double rate, double left_distance, double right_distance, const double* __restrict F,
               const double* __restrict B, double* __restrict P, double* scratch) {
    std::size_t const n = tri_size(K);
    if (left_distance == 0.0 || right_distance == 0.0) {
        for (std::size_t k = 0; k < n; ++k) P[k] = F[k] * B[k];
    } else {
        double* __restrict RF = scratch;
        double* __restrict RB = scratch + K;
        double const TF = row_sums(K, F, RF);
        double const TB = row_sums(K, B, RB);
        Coefficients const cf = distance_coefficients(K, rate, left_distance, TF);
        Coefficients const cb = distance_coefficients(K, rate, right_distance, TB);
        for (int i = 0; i < K; ++i) {
            std::size_t const o = tri_offset(i);
            double const fi = RF[i], bi = RB[i];
            for (int j = 0; j <= i; ++j) {
                double const f = ((fi + RF[j]) * cf.ab + cf.bbt) + cf.aa * F[o + j];
                double const b = ((bi + RB[j]) * cb.ab + cb.bbt) + cb.aa * B[o + j];
                P[o + j] = f * b;
            }
        }
    }
    divide(n, P, tri_total(K, P));
}

// ---- Branch sums -----------------------------------------------------------

BranchLayout::BranchLayout(int K_, std::vector<int> a, std::vector<int> b)
    : K(K_), child_a(std::move(a)), child_b(std::move(b)) {
    int const n = static_cast<int>(child_a.size());
    if (K < 0 || n < K || static_cast<int>(child_b.size()) != n)
        throw std::invalid_argument("tree layout: node table does not cover the leaves");
    std::vector<int> parent(n, -1);
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
}

void branch_probabilities(BranchLayout const& layout, const double* P, const double* m, double* both,
                          double* one, double* work) {
    int const n = layout.n_nodes();
    double* W = work;      // ordered-pair sum of P within the node's leaves
    double* S = work + n;  // sum of m over the node's leaves
    const int* order = layout.order.data();
    for (int v = 0; v < n; ++v) {
        if (v < layout.K) {
            W[v] = P[tri_offset(v) + v];
            S[v] = m[v];
        } else {
            int const a = layout.child_a[v], b = layout.child_b[v];
            // Pairs with one leaf under each child meet at this node only.
            double cross = 0.0;
            for (int p = layout.lo[b]; p < layout.hi[b]; ++p) {
                int const x = order[p];
                std::size_t const ox = tri_offset(x);
                double row = 0.0;
                for (int q = layout.lo[a]; q < layout.hi[a]; ++q) {
                    int const y = order[q];
                    row += x > y ? P[ox + y] : P[tri_offset(y) + x];
                }
                cross += row;
            }
            W[v] = (W[a] + W[b]) + 2.0 * cross;
            S[v] = S[a] + S[b];
        }
        both[v] = W[v];
        one[v] = 2.0 * (S[v] - W[v]);
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

// ---- Per-individual pipeline -----------------------------------------------

void Workspace::reserve(int K, int n_kept) {
    std::size_t const n = tri_size(K);
    if (K != K_) {
        K_ = K;
        f_.assign(n, 0.0);
        b_.assign(n, 0.0);
        g_[0].assign(n, 0.0);
        g_[1].assign(n, 0.0);
        p_.assign(n, 0.0);
        for (int k = 0; k < 2; ++k) {
            rf_[k].assign(K, 0.0);
            rg_[k].assign(K, 0.0);
        }
        scratch_.assign(2 * static_cast<std::size_t>(K), 0.0);
        kept_.clear();
    }
    if (kept_.size() < n * n_kept) kept_.resize(n * n_kept);
}

void Workspace::run(Panel const& panel, Schedule const& schedule, const std::uint8_t* genotypes,
                    PosteriorSink sink) {
    int const K = panel.K, L = panel.L;
    if (L == 0 || K == 0) return;
    if (schedule.L != L) throw std::invalid_argument("schedule does not match the panel");
    reserve(K, schedule.n_kept);
    std::size_t const n = tri_size(K);
    double* F = f_.data();
    double* B = b_.data();
    auto ecol = [&](int s) { return panel.emission[genotypes[s]]; };
    auto keep = [&](int s) {
        if (schedule.keep_slot[s] >= 0) std::memcpy(&kept_[n * schedule.keep_slot[s]], F, n * sizeof(double));
    };

    // Forward in place, keeping the arrays of left flanks after their rescaling.
    int r = 0;
    double total = forward_first(K, panel.h(0), ecol(0), F, rf_[r].data());
    keep(0);
    for (int s = 1; s < L; ++s) {
        total = forward_step(K, panel.stay[s], panel.jump[s], F, rf_[r].data(), total, panel.h(s), ecol(s), F,
                             rf_[1 - r].data());
        r = 1 - r;
        keep(s);
    }

    // Backward on G = E * B. B_s is formed only where a position needs it or
    // its rescaling does; it is final once that rescaling (made for the step
    // to s - 1) is done, so the positions with right flank s are finished
    // right after the step from s + 1 to s.
    auto finish = [&](int s) {
        for (int k = schedule.by_right_start[s]; k < schedule.by_right_start[s + 1]; ++k) {
            int const p = schedule.by_right[k];
            Flank const& f = schedule.flanks[p];
            posterior(K, f.rate, f.left_distance, f.right_distance, &kept_[n * schedule.keep_slot[f.left]], B,
                      p_.data(), scratch_.data());
            sink(p, p_.data());
        }
    };
    auto has_positions = [&](int s) { return schedule.by_right_start[s] < schedule.by_right_start[s + 1]; };
    int g = 0;
    r = 0;
    std::fill(B, B + n, 1.0);
    double tg = 0.0;
    if (L > 1) {
        tg = weighted(K, B, panel.h(L - 1), ecol(L - 1), g_[g].data(), rg_[r].data());
        if (tg < underflow_limit) {
            divide(n, B, tg);
            divide(static_cast<std::size_t>(K), rg_[r].data(), tg);
            weighted(K, B, panel.h(L - 1), ecol(L - 1), g_[g].data(), rg_[1 - r].data());
            tg = 1.0;
        }
    }
    finish(L - 1);
    for (int s = L - 2; s >= 0; --s) {
        double const stay = panel.stay[s + 1], jump = panel.jump[s + 1];
        const double* Gn = g_[g].data();
        const double* Rg = rg_[r].data();
        double t = 0.0;
        bool rescale = false;
        if (s > 0) {
            t = gamma_step(K, stay, jump, Gn, Rg, tg, panel.h(s), ecol(s), g_[1 - g].data(), rg_[1 - r].data());
            rescale = t < underflow_limit;
        }
        if (rescale || has_positions(s)) backward_from_gamma(K, stay, jump, Gn, Rg, tg, B);
        if (rescale) {
            divide(n, B, t);
            divide(static_cast<std::size_t>(K), rg_[1 - r].data(), t);
            // Rg is spent: its buffer takes the sums that this pass does not need.
            weighted(K, B, panel.h(s), ecol(s), g_[1 - g].data(), rg_[r].data());
            t = 1.0;
        }
        finish(s);
        g = 1 - g;
        r = 1 - r;
        tg = t;
    }
}

}  // namespace hmm_kernel
