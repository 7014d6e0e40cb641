// Arithmetic of the GPU engine, written once for the device and the host.
//
// Under nvcc these functions are __host__ __device__; under g++ they are
// plain inline functions, so the ordinary test suite runs them on the CPU and
// compares them bit for bit with the vectorised kernel. The work of one
// individual is split among the threads of a "team" (a CUDA block on the
// device, one or more host threads in the tests): a thread owns a row while
// values are formed and a column while the column sums are taken, and sums in
// the same order as the CPU kernel:
//   - row i: eight partial sums by j mod 8 over j < i, in increasing j,
//     reduced as ((p0 + p1) + (p2 + p3)) + ((p4 + p5) + (p6 + p7));
//   - R(j) = (off(j) + diag(j)) + T[j+1][j] + T[j+2][j] + ..., rows in order;
//   - total = sum over rows, in order, of 2 * off(i) + diag(i).
// Only additions, multiplications and divisions happen here; every exp and
// log is taken on the host by the CPU's code and handed in as a number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/pair_arith.h"

namespace gpu_arith {

using pair_arith::Coefficients;
using pair_arith::coefficients;
using pair_arith::step_value;
using pair_arith::tri_offset;
using pair_arith::tri_size;
using pair_arith::underflow_limit;

// Emission of pair {i, j}: E[h_i + h_j][g], h as 0.0 / 1.0.
KETRA_HD double emission(const double* h, const double* ecol, int i, int j) {
    return ecol[static_cast<int>(h[i]) + static_cast<int>(h[j])];
}

// ---- Teams -------------------------------------------------------------------
// A team has rank(), size() and sync(), and lanes(): 8 when its threads work
// in groups of eight consecutive ranks (size a multiple of 8), else 1. With
// groups, lane_tree_sum(p), called by every thread of the team at once,
// returns to each thread of a group ((p0 + p1) + (p2 + p3)) + ((p4 + p5) +
// (p6 + p7)), p_u being lane u's value.

// One thread doing all the work.
struct SerialTeam {
    KETRA_HD int rank() const { return 0; }
    KETRA_HD int size() const { return 1; }
    KETRA_HD void sync() const {}
    KETRA_HD int lanes() const { return 1; }
    KETRA_HD double lane_tree_sum(double p) const { return p; }
};

// ---- Row producers -------------------------------------------------------------
// value(i, j, o) forms entry [i][j] (o = tri_offset(i)), stores what the pass
// writes, and returns the value that enters the sums.

struct SumRow {  // the values themselves
    const double* T;
    KETRA_HD double value(int, int j, std::size_t o) const { return T[o + j]; }
};

struct FirstRow {  // F = E / (K*K)
    double* F;
    const double* h;
    const double* ecol;
    double pairs;
    KETRA_HD double value(int i, int j, std::size_t o) const {
        double const v = emission(h, ecol, i, j) / pairs;
        F[o + j] = v;
        return v;
    }
};

struct WeightedRow {  // G = E * B
    const double* B;
    double* G;
    const double* h;
    const double* ecol;
    KETRA_HD double value(int i, int j, std::size_t o) const {
        double const v = B[o + j] * emission(h, ecol, i, j);
        G[o + j] = v;
        return v;
    }
};

// B = transition of G; G = B * E in place; B stored unless null. With B null
// this is the forward step too: F = transition of F, times the emission.
struct GammaRow {
    double* G;
    double* B;
    const double* Rg;
    const double* h;
    const double* ecol;
    Coefficients c;
    KETRA_HD double value(int i, int j, std::size_t o) const {
        double const b = step_value(Rg[i], Rg[j], G[o + j], c);
        if (B) B[o + j] = b;
        double const v = b * emission(h, ecol, i, j);
        G[o + j] = v;
        return v;
    }
};

struct ProductRow {  // P = F * B
    const double* F;
    const double* B;
    double* P;
    KETRA_HD double value(int, int j, std::size_t o) const { return P[o + j] = F[o + j] * B[o + j]; }
};

struct CarriedProductRow {  // P = (F carried to the position) * (B carried to it)
    const double* F;
    const double* B;
    double* P;
    const double* RF;
    const double* RB;
    Coefficients cf, cb;
    KETRA_HD double value(int i, int j, std::size_t o) const {
        double const f = step_value(RF[i], RF[j], F[o + j], cf);
        double const b = step_value(RB[i], RB[j], B[o + j], cb);
        return P[o + j] = f * b;
    }
};

struct DivideRow {  // P = P / by
    double* P;
    double by;
    KETRA_HD double value(int, int j, std::size_t o) const { return P[o + j] /= by; }
};

// ---- Team passes ---------------------------------------------------------------
// Every team function starts and ends with all threads in step: what one
// thread wrote is visible to all on return.

// Off-diagonal sum (eight partials) and diagonal value of row i, by one thread.
template <class Row>
KETRA_HD void row_pass(Row const& row, int i, double* off, double* diag) {
    std::size_t const o = tri_offset(i);
    double p0 = 0.0, p1 = 0.0, p2 = 0.0, p3 = 0.0, p4 = 0.0, p5 = 0.0, p6 = 0.0, p7 = 0.0;
    int j = 0;
    for (; j + 8 <= i; j += 8) {
        p0 += row.value(i, j, o);
        p1 += row.value(i, j + 1, o);
        p2 += row.value(i, j + 2, o);
        p3 += row.value(i, j + 3, o);
        p4 += row.value(i, j + 4, o);
        p5 += row.value(i, j + 5, o);
        p6 += row.value(i, j + 6, o);
        p7 += row.value(i, j + 7, o);
    }
    if (j < i) p0 += row.value(i, j++, o);
    if (j < i) p1 += row.value(i, j++, o);
    if (j < i) p2 += row.value(i, j++, o);
    if (j < i) p3 += row.value(i, j++, o);
    if (j < i) p4 += row.value(i, j++, o);
    if (j < i) p5 += row.value(i, j++, o);
    if (j < i) p6 += row.value(i, j++, o);
    off[i] = ((p0 + p1) + (p2 + p3)) + ((p4 + p5) + (p6 + p7));
    diag[i] = row.value(i, i, o);
}

// Total of the full symmetric matrix from the rows' off-diagonal sums and diagonals.
KETRA_HD double total_of(int K, const double* off, const double* diag) {
    double total = 0.0;
    for (int i = 0; i < K; ++i) total += 2.0 * off[i] + diag[i];
    return total;
}

// Forms the values of T row by row, then the row sums R (unless null) column
// by column; returns the total. R may be the array the rows read: it is
// written only after every row is done. work holds 2K + 1 doubles.
//
// The threads of a warp read neighbouring addresses in both phases, and every
// sum keeps its order. Rows: with groups of eight, lane u of a group forms
// the entries j = u mod 8 of the group's row in increasing j, which is the
// CPU's partial sum p_u, and the group adds the eight partials in the CPU's
// tree. Columns: thread j owns column j, and all threads walk the rows
// together, each adding row i's entry of its column once i > j: the rows in
// order, as the CPU adds them, and neighbouring columns of one row at once.
template <class Team, class Row>
KETRA_HD double sweep(Team const& team, int K, Row const& row, const double* T, double* R, double* work) {
    double* off = work;
    double* diag = work + K;
    double* total = work + 2 * K;
    int const size = team.size();
    if (team.lanes() == 1) {
        for (int i = team.rank(); i < K; i += size) row_pass(row, i, off, diag);
    } else {
        int const groups = size / 8, u = team.rank() % 8;
        // Every thread takes the same number of rounds: the groups sum together.
        for (int first = 0; first < K; first += groups) {
            int const i = first + team.rank() / 8;
            std::size_t const o = tri_offset(i < K ? i : 0);
            double p = 0.0;
            if (i < K)
                for (int j = u; j < i; j += 8) p += row.value(i, j, o);
            double const sum = team.lane_tree_sum(p);
            if (i < K && u == 0) {
                off[i] = sum;
                diag[i] = row.value(i, i, o);
            }
        }
    }
    team.sync();
    if (R) {
        for (int c = 0; c < K; c += size) {
            int const j = c + team.rank();
            double r = j < K ? off[j] + diag[j] : 0.0;
            for (int i = c + 1; i < K; ++i)
                if (j < i) r += T[tri_offset(i) + j];
            if (j < K) R[j] = r;
        }
    }
    if (team.rank() == team.size() - 1) *total = total_of(K, off, diag);
    team.sync();
    // The next pass writes the total only after its rows, behind a sync that
    // every thread reaches after this read.
    return *total;
}

template <class Team>
KETRA_HD void divide(Team const& team, std::size_t n, double* x, double by) {
    for (std::size_t k = team.rank(); k < n; k += team.size()) x[k] /= by;
    team.sync();
}

template <class Team>
KETRA_HD void copy(Team const& team, std::size_t n, const double* from, double* to) {
    for (std::size_t k = team.rank(); k < n; k += team.size()) to[k] = from[k];
    team.sync();
}

template <class Team>
KETRA_HD void fill(Team const& team, std::size_t n, double* x, double value) {
    for (std::size_t k = team.rank(); k < n; k += team.size()) x[k] = value;
    team.sync();
}

// Calls f(i, j, o) for every entry: one row per thread, or per group of
// eight lanes, lane u taking the entries j = u mod 8.
template <class Team, class F>
KETRA_HD void for_each_entry(Team const& team, int K, F const& f) {
    int const lanes = team.lanes();
    int const u = team.rank() % lanes;
    for (int i = team.rank() / lanes; i < K; i += team.size() / lanes) {
        std::size_t const o = tri_offset(i);
        for (int j = u; j <= i; j += lanes) f(i, j, o);
    }
    team.sync();
}

// ---- Passes of the CPU kernel's interface ---------------------------------------

template <class Team>
KETRA_HD double forward_first(Team const& team, int K, const double* h, const double* ecol, double* F, double* R,
                              double* work) {
    double const pairs = static_cast<double>(static_cast<long long>(K) * K);
    return sweep(team, K, FirstRow{F, h, ecol, pairs}, F, R, work);
}

// Forward step in place on F; R holds the previous row sums on entry and the
// new ones on return (rescaled with F when the total is below the limit).
// Returns the total before rescaling.
template <class Team>
KETRA_HD double forward_step(Team const& team, int K, double stay, double jump, double* F, double* R, double Tp,
                             const double* h, const double* ecol, double* work) {
    Coefficients const c = coefficients(stay, jump, Tp);
    double const total = sweep(team, K, GammaRow{F, nullptr, R, h, ecol, c}, F, R, work);
    if (total < underflow_limit) {
        divide(team, tri_size(K), F, total);
        divide(team, static_cast<std::size_t>(K), R, total);
    }
    return total;
}

// One tree position as the device sees it.
struct PositionPlan {
    int left_kept;      // kept index of the left flank's forward array
    int propagate;      // 0 when a distance is 0
    double left_stay, left_jump, right_stay, right_jump;
    int tree;                   // index into the plan's trees, -1 for none
    std::size_t branch_offset;  // into an individual's branch values
};

// Pair posterior P from forward values F and backward values B carried to a
// position with the switch rates of its two distances (propagate false: a
// distance is 0, no step), and its haplotype probabilities m. RF, TF and RB,
// TB are the flanks' row sums and totals, needed only when propagating. work
// holds 2K + 1 doubles.
template <class Team>
KETRA_HD void posterior(Team const& team, int K, PositionPlan const& pp, const double* F, const double* RF,
                        double TF, const double* B, const double* RB, double TB, double* P, double* m,
                        double* work) {
    double total;
    if (!pp.propagate) {
        total = sweep(team, K, ProductRow{F, B, P}, P, nullptr, work);
    } else {
        Coefficients const cf = coefficients(pp.left_stay, pp.left_jump, TF);
        Coefficients const cb = coefficients(pp.right_stay, pp.right_jump, TB);
        total = sweep(team, K, CarriedProductRow{F, B, P, RF, RB, cf, cb}, P, nullptr, work);
    }
    sweep(team, K, DivideRow{P, total}, P, m, work);
}

// Branch sums of one tree: the same node-by-node recursion as the CPU kernel.
// Nodes 0..K-1 are leaves; order[lo[v] .. hi[v]) are node v's leaves. For
// each of the n_marked nodes in marked, writes both and one to out (two
// values per node). work holds 3 * n_nodes doubles, rows one double per row
// of every merge (row_start[n_nodes] of them).
struct TreeView {
    int n_nodes;
    const int* child_a;
    const int* child_b;
    const int* lo;
    const int* hi;
    const int* order;
    const int* marked;
    int n_marked;
    const std::size_t* row_start;  // per node: where its merge's rows start in rows
};

// Merge v's cross sum is the sum over the leaves x of child b, in depth-first
// order, of the serial sum of P(x, y) over the leaves y of child a: the CPU's
// order. Every row of every merge gets its own thread (rows are dealt out
// across merges, so that small merges do not leave threads idle), then every
// merge adds its rows in order.
template <class Team>
KETRA_HD void branch_probabilities(Team const& team, int K, TreeView const& tree, const double* P, const double* m,
                                   double* out, double* rows, double* work) {
    int const n = tree.n_nodes;
    int const size = team.size();
    double* cross = work;  // pairs with one leaf under each child, per merge
    double* W = work + n;
    double* S = work + 2 * n;
    for (int v = K; v < n; ++v) {
        int const a = tree.child_a[v], b = tree.child_b[v];
        std::size_t const base = tree.row_start[v];
        int const count = tree.hi[b] - tree.lo[b];
        // Row r of this merge is row base + r overall, dealt to thread (base + r) mod size.
        int const first = static_cast<int>((static_cast<std::size_t>(team.rank()) + size - base % size) % size);
        for (int r = first; r < count; r += size) {
            int const x = tree.order[tree.lo[b] + r];
            std::size_t const ox = tri_offset(x);
            double row = 0.0;
            for (int q = tree.lo[a]; q < tree.hi[a]; ++q) {
                int const y = tree.order[q];
                row += x > y ? P[ox + y] : P[tri_offset(y) + x];
            }
            rows[base + r] = row;
        }
    }
    team.sync();
    for (int v = K + team.rank(); v < n; v += size) {
        int const b = tree.child_b[v];
        const double* r = rows + tree.row_start[v];
        int const count = tree.hi[b] - tree.lo[b];
        double c = 0.0;
        for (int k = 0; k < count; ++k) c += r[k];
        cross[v] = c;
    }
    team.sync();
    if (team.rank() == 0) {
        for (int v = 0; v < n; ++v) {
            if (v < K) {
                W[v] = P[tri_offset(v) + v];
                S[v] = m[v];
            } else {
                int const a = tree.child_a[v], b = tree.child_b[v];
                W[v] = (W[a] + W[b]) + 2.0 * cross[v];
                S[v] = S[a] + S[b];
            }
        }
    }
    team.sync();
    for (int t = team.rank(); t < tree.n_marked; t += size) {
        int const v = tree.marked[t];
        out[2 * t] = W[v];
        out[2 * t + 1] = 2.0 * (S[v] - W[v]);
    }
    team.sync();
}

// ---- Whole individual ------------------------------------------------------------

// Everything shared by the individuals of a run, prepared on the host.
struct Plan {
    int K = 0, L = 0, n_kept = 0, n_positions = 0;
    const double* alleles = nullptr;   // L x K, 0.0 / 1.0
    const double* stay = nullptr;      // per SNP, from the previous SNP
    const double* jump = nullptr;
    const double* emission = nullptr;  // 4 x 3: emission[3g + a] = E[a][g]
    const int* keep_slot = nullptr;    // per SNP: its kept index, -1 when not kept
    // Positions with right flank s: by_right[by_right_start[s] .. by_right_start[s+1]),
    // by left flank descending, so that kept arrays are used in descending order.
    const int* by_right_start = nullptr;
    const int* by_right = nullptr;
    int lowest = 0;  // lowest right flank: the backward pass stops there
    // The CPU's checkpoint plan: sweep k computes the forward values from kept
    // index sweep_from[k] (-1: the first SNP) up to kept index sweep_to[k] and
    // stores kept indices store[store_start[k] .. store_start[k+1]); kept index
    // i lies at SNP kept_snp[i] and is held in slot slot_of[i] once
    // sweeps_before[i] sweeps have run.
    int n_sweeps = 0;
    const int* sweep_from = nullptr;
    const int* sweep_to = nullptr;
    const int* store_start = nullptr;
    const int* store = nullptr;
    const int* slot_of = nullptr;
    const int* sweeps_before = nullptr;
    const int* kept_snp = nullptr;
    const PositionPlan* positions = nullptr;
    const TreeView* trees = nullptr;
    bool every_posterior = false;      // keep each position's pair posterior
};

// A kept forward array's slot: the values, their row sums, the step's total
// and whether the values were rescaled (1.0) or not (0.0).
KETRA_HD std::size_t kept_stride(int K) { return tri_size(K) + static_cast<std::size_t>(K) + 2; }

// Buffers of one individual. pairs, F, B, backup and P are pair arrays (P: one
// per position with every_posterior); kept holds the plan's slots; R0, R1 and
// RS hold K doubles, work 4K + 1 + 3 * (largest tree's node count). F and RS
// serve the sweeps after the first, which run during the backward pass, when
// pairs holds G; backup also holds the rows of the branch sums.
struct Work {
    double* pairs;
    double* F;
    double* kept;
    double* B;
    double* backup;
    double* P;
    double* R0;
    double* R1;
    double* RS;
    double* work;
};

// The part of the work the shared-memory kernel keeps on chip, carved from
// base: pairs, R0, R1 and work, shared_doubles() in all.
KETRA_HD void carve_on_chip(int K, Work& w, double* base) {
    w.pairs = base;
    w.R0 = base + tri_size(K);
    w.R1 = w.R0 + K;
    w.work = w.R1 + K;
}

// Per-individual results: m (positions x K), branch values, and the status
// (0, or an error code the host reports).
struct Output {
    double* m;
    double* branches;
    int* status;
};

enum Status : int { status_ok = 0, status_unexpected_rescaling = 1 };

// Whether the next backward total might fall below the limit: the step keeps
// the total of G (its coefficients sum to one), so the new total is at least
// Tg times the smallest emission, up to rounding far below the factor 2.
KETRA_HD bool might_underflow(double Tg, const double* ecol) {
    double e = ecol[0];
    if (ecol[1] < e) e = ecol[1];
    if (ecol[2] < e) e = ecol[2];
    return !(Tg * e > 2.0 * underflow_limit);
}

// Both passes of one individual with the CPU pipeline's order of work and
// rescaling; at each position, the pair posterior, the haplotype
// probabilities and the branch values. The forward pass goes only as far as
// the last kept SNP, and keeps forward arrays as the checkpoint plan says;
// the backward pass stops at the lowest right flank.
template <class Team>
KETRA_HD void run_individual(Team const& team, Plan const& plan, const std::uint8_t* genotypes, Work const& w,
                             Output const& out) {
    int const K = plan.K, L = plan.L;
    if (team.rank() == 0) *out.status = status_ok;
    if (K == 0 || L == 0 || plan.n_positions == 0) return;
    std::size_t const n = tri_size(K);
    auto h = [&](int s) { return plan.alleles + static_cast<std::size_t>(s) * K; };
    auto ecol = [&](int s) { return plan.emission + 3 * genotypes[s]; };
    auto slot = [&](int k) { return w.kept + kept_stride(K) * static_cast<std::size_t>(plan.slot_of[k]); };

    // Sweep k of the plan, in place on F with row sums R.
    auto forward_sweep = [&](int k, double* F, double* R) {
        int next = plan.store_start[k];
        auto store = [&](int s, double total) {
            if (next == plan.store_start[k + 1] || plan.kept_snp[plan.store[next]] != s) return;
            double* x = slot(plan.store[next++]);
            copy(team, n, F, x);
            copy(team, static_cast<std::size_t>(K), R, x + n);
            if (team.rank() == 0) {
                x[n + K] = total;
                x[n + K + 1] = s > 0 && total < underflow_limit ? 1.0 : 0.0;
            }
            team.sync();
        };
        int s = 0;
        double total;
        if (plan.sweep_from[k] < 0) {
            total = forward_first(team, K, h(0), ecol(0), F, R, w.work);
            store(0, total);
        } else {
            const double* x = slot(plan.sweep_from[k]);
            copy(team, n, x, F);
            copy(team, static_cast<std::size_t>(K), x + n, R);
            total = x[n + K];
            s = plan.kept_snp[plan.sweep_from[k]];
        }
        for (int const last = plan.kept_snp[plan.sweep_to[k]]; s < last;) {
            ++s;
            total = forward_step(team, K, plan.stay[s], plan.jump[s], F, R, total, h(s), ecol(s), w.work);
            store(s, total);
        }
    };
    // The first sweep works on the pair array (on chip where it fits); the
    // later ones run while it holds G.
    forward_sweep(0, w.pairs, w.R0);
    int sweeps_done = 1;
    auto kept = [&](int k) {
        while (sweeps_done < plan.sweeps_before[k]) forward_sweep(sweeps_done++, w.F, w.RS);
        return slot(k);
    };

    // Backward on G = E * B, in place. B is formed where a position needs it,
    // during the step; when a total underflows at a SNP without positions, it
    // is formed afterwards from the copy of the previous G made for that case.
    double* G = w.pairs;
    double* B = w.B;
    double* rg = w.R0;      // row sums of the current G
    double* rg_out = w.R1;  // those of the next
    double* RF = w.work + 2 * K + 1;
    double* RB = RF + K;
    auto finish = [&](int s) {
        bool b_sums = false;  // B's row sums and total, once per SNP where a position needs them
        double TB = 0.0;
        for (int k = plan.by_right_start[s]; k < plan.by_right_start[s + 1]; ++k) {
            int const p = plan.by_right[k];
            PositionPlan const& pp = plan.positions[p];
            const double* x = kept(pp.left_kept);
            const double* F = x;
            const double* rf = x + n;
            double TF = x[n + K];
            if (pp.propagate && x[n + K + 1] != 0.0) {  // rescaled: its row sums are taken again
                TF = sweep(team, K, SumRow{F}, F, RF, w.work);
                rf = RF;
            }
            if (pp.propagate && !b_sums) {
                TB = sweep(team, K, SumRow{B}, B, RB, w.work);
                b_sums = true;
            }
            double* P = plan.every_posterior ? w.P + n * p : w.P;
            double* m = out.m + static_cast<std::size_t>(p) * K;
            posterior(team, K, pp, F, rf, TF, B, RB, TB, P, m, w.work);
            if (pp.tree >= 0)
                branch_probabilities(team, K, plan.trees[pp.tree], P, m, out.branches + pp.branch_offset, w.backup,
                                     w.work + 4 * K + 1);
        }
    };
    auto has_positions = [&](int s) { return plan.by_right_start[s] < plan.by_right_start[s + 1]; };
    auto reweigh = [&](int s) {  // G = E * B after B was rescaled
        const double* hs = h(s);
        const double* es = ecol(s);
        for_each_entry(team, K, [&](int i, int j, std::size_t o) { G[o + j] = B[o + j] * emission(hs, es, i, j); });
    };
    fill(team, n, B, 1.0);
    double tg = 0.0;
    if (L > 1) {
        tg = sweep(team, K, WeightedRow{B, G, h(L - 1), ecol(L - 1)}, G, rg, w.work);
        if (tg < underflow_limit) {
            divide(team, n, B, tg);
            divide(team, static_cast<std::size_t>(K), rg, tg);
            reweigh(L - 1);
            tg = 1.0;
        }
    }
    finish(L - 1);
    for (int s = L - 2; s >= plan.lowest; --s) {
        Coefficients const c = coefficients(plan.stay[s + 1], plan.jump[s + 1], tg);
        bool const need_b = has_positions(s);
        double t = 0.0;
        bool rescale = false;
        if (s > 0) {
            bool const backed_up = !need_b && might_underflow(tg, ecol(s));
            if (backed_up) copy(team, n, G, w.backup);
            t = sweep(team, K, GammaRow{G, need_b ? B : nullptr, rg, h(s), ecol(s), c}, G, rg_out, w.work);
            rescale = t < underflow_limit;
            if (rescale && !need_b) {
                if (!backed_up) {
                    if (team.rank() == 0) *out.status = status_unexpected_rescaling;
                    return;
                }
                const double* Gn = w.backup;
                for_each_entry(team, K, [&](int i, int j, std::size_t o) {
                    B[o + j] = step_value(rg[i], rg[j], Gn[o + j], c);
                });
            }
        } else if (need_b) {
            for_each_entry(team, K, [&](int i, int j, std::size_t o) {
                B[o + j] = step_value(rg[i], rg[j], G[o + j], c);
            });
        }
        if (rescale) {
            divide(team, n, B, t);
            divide(team, static_cast<std::size_t>(K), rg_out, t);
            reweigh(s);
            t = 1.0;
        }
        finish(s);
        double* const spent = rg;
        rg = rg_out;
        rg_out = spent;
        tg = t;
    }
}

}  // namespace gpu_arith
