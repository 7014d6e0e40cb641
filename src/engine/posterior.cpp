// The pair posterior at a tree position: each flank's values carried to the
// position, their product, and its normalisation with the haplotype
// probabilities.
#include "engine/kernel.h"
#include "engine/kernel_vectors.h"

namespace hmm_kernel {

namespace {

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
        v4 const f = step_value(kf.ri, load4(RF + j), load4(F + j), kf);
        v4 const b = step_value(kb.ri, load4(RB + j), load4(B + j), kb);
        v4 const v = f * b;
        store4(P + j, v);
        return v;
    }
    double one(int j) const {
        double const f = step_value(fi, RF[j], F[j], cf);
        double const b = step_value(bi, RB[j], B[j], cb);
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

// ---- Posterior -------------------------------------------------------------

// The posterior with the flanks' row sums and totals given where known (RF or
// RB null: computed here). Two passes: the product with its total, then the
// division with the haplotype probabilities.
KETRA_CLONES void posterior_from(int K, double rate, double left_distance, double right_distance,
                                 const double* F, const double* RF, double TF, const double* B, const double* RB,
                                 double TB, double* P, double* scratch, double* m) {
    double total;
    FetchAhead<double> fetch(F, K);  // F is a kept forward array
    if (left_distance == 0.0 || right_distance == 0.0) {
        total = sweep<false>(K, nullptr, [&](int i) {
            std::size_t const o = tri_offset(i);
            fetch.before_row(i);
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
            fetch.before_row(i);
            return CarriedProductRow{F + o, B + o, P + o, RF, RB, cf, cb, RF[i], RB[i]};
        });
    }
    if (m)
        sweep(K, m, [&](int i) { return DivideRow{P + tri_offset(i), total}; });
    else
        divide(tri_size(K), P, total);
}

void posterior(int K, double rate, double left_distance, double right_distance, const double* F, const double* B,
               double* P, double* scratch, double* m) {
    posterior_from(K, rate, left_distance, right_distance, F, nullptr, 0.0, B, nullptr, 0.0, P, scratch, m);
}

}  // namespace hmm_kernel
