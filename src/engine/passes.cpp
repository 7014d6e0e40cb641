// The forward and backward recursions over pair arrays, one SNP a step, and
// the row sums they all keep.
#include <cmath>

#include "engine/kernel.h"
#include "engine/kernel_vectors.h"

namespace hmm_kernel {

KETRA_CLONES void divide(std::size_t n, double* __restrict x, double by) {
    for (std::size_t k = 0; k < n; ++k) x[k] /= by;
}

std::pair<double, double> distance_switch_rates(int K, double rate, double distance) {
    double const e = std::exp(-rate * distance / K);
    double const jump = (1.0 - e) / K;
    double const stay = e + jump;
    return {stay, jump};
}

namespace {

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
        v4 v = step_value(k.ri, load4(RX + j), load4(X + j), k);
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
        v4 const v = step_value(k.ri, load4(Rg + j), load4(Bn + j) * en.at4(load4(hn + j)), k);
        store4(B + j, v);
        return v * e.at4(load4(h + j));
    }
    double one(int j) const {
        double const v = step_value(ri, Rg[j], Bn[j] * en.at(hn, j), c);
        B[j] = v;
        return v * e.at(h, j);
    }
};

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
                    const double* h, const double* ecol, double* F, double* R, bool far_target) {
    double const total = gamma_step(K, stay, jump, Fp, Rp, Tp, h, ecol, F, R, far_target);
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
                               const double* h, const double* ecol, double* G, double* Rg_out, bool far_target) {
    Coefficients const c = coefficients(stay, jump, Tg);
    auto const row = [&](int i) {
        std::size_t const o = tri_offset(i);
        return TransitionRow<true>{Gn + o, G + o, Rg, h, RowEmission(h, ecol, i), c, Rg[i]};
    };
    // Most steps stay in the caches: a sweep of their own, without even the
    // check for requests, which alone costs them 3 %.
    if (!far_target) return sweep(K, Rg_out, row);
    FetchAhead<double, true> fetch(G, K);
    return sweep(K, Rg_out, [&](int i) {
        fetch.before_row(i);
        return row(i);
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

}  // namespace hmm_kernel
