// Numerical core of the haplotype-pair copying model: plain arrays in, plain
// arrays out. Nothing here knows about the data store, streams or the console.
//
// Pair arrays are lower-triangular and flat: for K haplotypes, row i holds the
// i + 1 values [i][0..i] starting at offset i(i+1)/2, and stands for the full
// symmetric K x K matrix T(i, j) = T(j, i) = T[max][min]. R(i) is the sum of
// row i of the full matrix, the total the sum of all K*K entries.
//
// Every sum is taken in one fixed order (eight partial sums per row, reduced
// in a fixed tree), so that results do not depend on the vector width the
// compiler picks; the build disables floating-point contraction for the same
// reason.
//
// The sources, by concern: passes.cpp (the recursions and row sums),
// posterior.cpp, branch_sums.cpp, schedule.cpp (flanks, schedule and
// checkpoint plan) and workspace.cpp (one individual end to end);
// kernel_vectors.h holds the building blocks they share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "engine/pair_arith.h"

namespace hmm_kernel {

using pair_arith::tri_offset;
using pair_arith::tri_size;
using pair_arith::underflow_limit;

// ---- Sums ------------------------------------------------------------------

// Row sums R (K values) of the full symmetric matrix of T; returns the total.
double row_sums(int K, const double* T, double* R);

// x[k] /= by for k < n: the rescaling of an array and its row sums.
void divide(std::size_t n, double* x, double by);

// ---- Recursions ------------------------------------------------------------
// h: the SNP's alleles as 0.0 / 1.0, one per haplotype. ecol: the emission
// column of the genotype code g, ecol[a] = E[a][g] for a = 0, 1, 2. The
// emission of pair {i, j} is ecol[h_i + h_j], selected per row, never
// interpolated.

// First SNP: F = E / (K*K), with its row sums R and total. No rescaling.
double forward_first(int K, const double* h, const double* ecol, double* F, double* R);

// One forward step into SNP s from the previous SNP's values Fp, row sums Rp
// and total Tp, with SNP s's switch rates. Writes F (which may be Fp itself:
// each entry depends only on the same entry and the row sums) and its row
// sums R (distinct from Rp). When the new total is below the limit, F and R
// are divided by it; the returned total is the one before that division (the
// next step uses it undivided). far_target: F lies far outside the caches (a
// kept array), so its cache lines are asked for ahead of the writes.
double forward_step(int K, double stay, double jump, const double* Fp, const double* Rp, double Tp,
                    const double* h, const double* ecol, double* F, double* R, bool far_target = false);

// Backward values of the last SNP: B = 1. With want_gamma (there is a SNP
// before it), returns the total of E * B and writes its row sums to R; when
// that total is below the limit, B and R are divided by it in place and the
// total becomes 1. Without want_gamma returns 0 and leaves R alone.
double backward_last(int K, const double* h, const double* ecol, double* B, double* R, bool want_gamma);

// One backward step into SNP s from SNP s+1: Bn, hn, ecoln are SNP s+1's
// backward values, alleles and emission column, Rg and Tg the row sums and
// total of E_{s+1} * Bn, stay and jump SNP s+1's switch rates. Writes B_s to B
// (which may be Bn itself). With want_gamma (s is not the first SNP), also
// returns the total of E_s * B_s with its row sums in Rg_out (distinct from
// Rg), after the same rescaling as backward_last, which divides B in place.
double backward_step(int K, double stay, double jump, const double* Bn, const double* hn, const double* ecoln,
                     const double* Rg, double Tg, const double* h, const double* ecol, double* B, double* Rg_out,
                     bool want_gamma);

// The same backward recursion carried on G = E_s * B_s instead of B_s (one
// load and one store per entry, but two arrays in turn). The values equal
// those of backward_step bit for bit: the step reads the same product
// E_{s+1} * B_{s+1} either way.
//
// weighted: row sums R and total of E * B; G = E * B when G is not null.
double weighted(int K, const double* B, const double* h, const double* ecol, double* G, double* R);
// G_s = (transition of Gn) * E_s with row sums Rg_out (distinct from Rg);
// returns the total, without rescaling (the caller rescales, see below).
double gamma_step(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg, const double* h,
                  const double* ecol, double* G, double* Rg_out, bool far_target = false);
// B_s = transition of Gn = E_{s+1} * B_{s+1}, no emission. When the total of
// gamma_step is below the limit, the caller forms B_s with this, divides B_s
// and the row sums by the total, and forms G_s again with weighted. When R is
// not null, also writes B_s's row sums there (those row_sums gives) and
// returns its total; otherwise returns 0.
double backward_from_gamma(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg,
                           double* B, double* R = nullptr);

// ---- Posterior -------------------------------------------------------------

// Pair posterior at a position from the left flank's forward values F and the
// right flank's backward values B. Unless a distance is 0, each array is first
// carried to the position by one transition step with e = exp(-rate*d/K),
// jump = (1-e)/K, stay = e + jump. Then P = F*B, divided by its total.
// scratch must hold 2K doubles. When m is not null, it also receives the
// haplotype probabilities of P (as haplotype_probabilities gives them).
void posterior(int K, double rate, double left_distance, double right_distance, const double* F,
               const double* B, double* P, double* scratch, double* m = nullptr);

// The same with the flanks' row sums RF, RB and totals TF, TB given where they
// are known (a null RF or RB: computed here), as the pipeline keeps them.
void posterior_from(int K, double rate, double left_distance, double right_distance, const double* F,
                    const double* RF, double TF, const double* B, const double* RB, double TB, double* P,
                    double* scratch, double* m);

// Switch rates {stay, jump} that carry values over a distance to a position:
// e = exp(-rate*distance/K), jump = (1-e)/K, stay = e + jump.
std::pair<double, double> distance_switch_rates(int K, double rate, double distance);

// m[k] = sum_j P(k, j): probability that one given copy copies haplotype k.
// Returns the sum of m.
inline double haplotype_probabilities(int K, const double* P, double* m) { return row_sums(K, P, m); }

// ---- Branch sums -----------------------------------------------------------

// Per-tree layout for branch sums: built once per tree, then used for every
// individual. Node ids 0..K-1 are the leaves, K.. the merges; each merge's
// children have smaller ids.
struct BranchLayout {
    int K = 0;
    std::vector<int> child_a, child_b;  // per node; -1 for a leaf
    std::vector<int> lo, hi;            // leaves of a node: order[lo .. hi)
    std::vector<int> order;             // leaves in depth-first order
    std::vector<int> rank;              // per leaf: its place in order
    std::vector<int> parent;            // per node; -1 for a root
    // Per merge: where its row sums start when they are taken without a
    // copy of P (one per leaf under child_b; K(K-1)/2 at most in all).
    std::vector<std::size_t> row_start;
    // When made by index_pairs(): for each entry k of the depth-first copy of
    // P, the entry of P it holds (K(K+1)/2 of them), so that the copy is one
    // gather instead of a pass that builds every leaf's row first.
    std::vector<std::uint32_t> pair_index;

    BranchLayout() = default;
    // child_a / child_b per node id; throws std::invalid_argument when they do
    // not describe a forest over the K leaves.
    BranchLayout(int K, std::vector<int> child_a, std::vector<int> child_b);
    int n_nodes() const { return static_cast<int>(child_a.size()); }
    void index_pairs();
};

// Whether branch_probabilities works from a copy of P in depth-first leaf
// order for K leaves; beyond, from row sums taken without a copy.
inline bool branch_sums_read_copy(int K) { return K <= 1024; }
// The bytes of the pair indexes of `positions` trees over K leaves, or 0 when
// they are not made: they are made only where branch_probabilities copies P
// at all, and only while all of them take at most pair_index_budget bytes.
constexpr std::size_t pair_index_budget = std::size_t(64) << 20;
std::size_t pair_index_bytes(int K, std::size_t positions);

// For every node of the layout: both[n] = probability that both copies descend
// from the node's branch, one[n] = probability that exactly one does. P is the
// pair posterior, m its haplotype probabilities. work must hold 2 * n_nodes
// doubles. O(K^2) for the whole tree. With reordered (K(K+1)/2 doubles of
// room), P is first copied there in depth-first leaf order, so that the sums
// read memory in sequence rather than at random; for large K the room holds
// the row sums instead, taken without the copy. Either way much faster, with
// the same bits.
void branch_probabilities(BranchLayout const& layout, const double* P, const double* m, double* both,
                          double* one, double* work, double* reordered = nullptr);

// ---- Panel and per-individual pipeline --------------------------------------

// The reference panel in compact form, prepared once per run.
struct Panel {
    int K = 0;                       // haplotypes
    int L = 0;                       // SNPs
    int N = 0;                       // individuals
    int first_held = 0, n_held = 0;  // the individuals with genotype codes here
    std::vector<double> alleles;     // L x K, 0.0 / 1.0, SNP-major
    std::vector<double> stay, jump;  // per SNP, from the previous SNP (unused at 0)
    std::vector<double> position;    // per SNP
    std::vector<double> rate_per_base;
    double emission[4][3] = {};      // emission[g][a] = E[a][g]
    std::vector<std::uint8_t> genotypes;  // n_held x L genotype codes, individual-major

    const double* h(int s) const { return alleles.data() + static_cast<std::size_t>(s) * K; }
    // Codes of individual n (first_held <= n < first_held + n_held).
    const std::uint8_t* genotypes_of(int n) const {
        return genotypes.data() + static_cast<std::size_t>(n - first_held) * L;
    }
};

// Where a position lies among the SNPs: left = last SNP at or before it,
// right = first SNP at or after it; distances 0 when the two coincide; rate is
// the right SNP's rate per base.
struct Flank {
    int left = 0, right = 0;
    double left_distance = 0.0, right_distance = 0.0;
    double rate = 0.0;
};

// Flanks of each position t (which must lie within [first, last] SNP position;
// std::out_of_range otherwise), from ascending SNP positions and their rates.
std::vector<Flank> find_flanks(std::vector<double> const& snp_positions, std::vector<double> const& rate_per_base,
                               std::vector<double> const& positions);

// Order of work shared by every individual: which forward arrays to keep and
// which positions to finish at each backward step.
struct Schedule {
    int L = 0;
    std::vector<Flank> flanks;
    std::vector<int> keep_slot;          // per SNP: slot of its kept forward array, or -1
    std::vector<int> by_right_start;     // positions with right flank s: by_right[start[s] .. start[s+1])
    std::vector<int> by_right;
    int n_kept = 0;

    Schedule() = default;
    Schedule(int L, std::vector<Flank> flanks);
};

// Receives each position's pair posterior (index into the schedule's flanks).
// A receiver that takes a third pointer also gets the position's haplotype
// probabilities (K values, those of haplotype_probabilities), which the
// pipeline forms in the same pass that normalises the posterior.
class PosteriorSink {
public:
    template <class F>
    PosteriorSink(F& f)
        : object_(&f), wants_haplotypes_(std::is_invocable_v<F&, int, const double*, const double*>),
          call_([](void* o, int p, const double* P, const double* m) {
              if constexpr (std::is_invocable_v<F&, int, const double*, const double*>)
                  (*static_cast<F*>(o))(p, P, m);
              else
                  (*static_cast<F*>(o))(p, P);
          }) {}
    void operator()(int p, const double* P, const double* m = nullptr) const { call_(object_, p, P, m); }
    bool wants_haplotypes() const { return wants_haplotypes_; }

private:
    void* object_;
    bool wants_haplotypes_;
    void (*call_)(void*, int, const double*, const double*);
};

// Memory a Workspace may spend per thread on kept forward arrays, unless told
// otherwise. Beyond it, forward arrays are kept only at some positions and
// recomputed from there when the backward pass reaches them.
constexpr std::size_t default_kept_budget = std::size_t(768) << 20;

// Which kept forward arrays (indices 0 .. n_kept-1, ascending by SNP) are
// stored when, for a given number of storage slots. The backward pass uses them
// in descending order; a sweep recomputes the forward values from an array
// that is held (or from the first SNP, from = -1) up to kept index `to`,
// storing the listed ones. Every kept index is stored exactly once, in
// slot_of[k], by the time sweeps_before[k] sweeps have run, and stays there
// until the pass has gone below it.
struct CheckpointPlan {
    struct Sweep {
        int from = -1, to = -1;
        std::vector<int> store;  // kept indices, ascending
    };
    int slots = 0;
    std::vector<int> slot_of, sweeps_before;
    std::vector<Sweep> sweeps;
};
// slots >= 1 (fewer are raised to one). With n_kept <= slots this is one sweep
// that stores everything, as if there were no budget.
CheckpointPlan plan_checkpoints(int n_kept, int slots);

// Per-thread buffers for one individual at a time; grown on first use and
// reused afterwards. Memory: up to kept_budget bytes of kept forward arrays
// (at least one array) plus five working pair arrays, independent of the
// number of SNPs.
class Workspace {
public:
    explicit Workspace(std::size_t kept_budget = default_kept_budget) : kept_budget_(kept_budget) {}

    // Runs both passes for one individual's genotype codes (L values) and
    // hands every position's posterior to sink, in the order the backward pass
    // reaches them. The results are those of full storage, bit for bit,
    // whatever the budget.
    void run(Panel const& panel, Schedule const& schedule, const std::uint8_t* genotypes, PosteriorSink sink);

    // Bytes a workspace with this budget holds for K haplotypes and schedule.
    static std::size_t bytes(int K, Schedule const& schedule, std::size_t kept_budget = default_kept_budget);
    // Forward arrays it can keep at once for K haplotypes (at least one).
    static int kept_slots(int K, std::size_t kept_budget);
    // Forward steps taken by the last run (recomputation included).
    long forward_steps() const { return forward_steps_; }

private:
    struct Kept {  // one stored forward array with the state the next step needs
        std::vector<double> F, R;
        double total = 0.0;
        bool rescaled = false;  // F and R were divided by total
    };
    void reserve(int K, int slots);
    void sweep(Panel const& panel, const std::uint8_t* genotypes, CheckpointPlan::Sweep const& step);

    std::size_t kept_budget_;
    int K_ = -1;
    std::vector<double> f_, rf_[2];  // forward values (updated in place) and row sums
    std::vector<Kept> kept_;         // storage slots for forward arrays
    CheckpointPlan plan_;
    std::vector<int> kept_snp_;  // kept index -> SNP
    std::vector<int> visit_;     // positions in the order they are finished
    std::vector<bool> carried_;  // per SNP: right flank of a position between SNPs
    std::vector<double> b_, g_[2], rg_[2];  // backward values B, E * B (rolling) and its row sums
    std::vector<double> rb_;         // row sums of B where known
    std::vector<double> p_, m_, scratch_;
    long forward_steps_ = 0;
};

}  // namespace hmm_kernel
