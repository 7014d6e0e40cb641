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
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

namespace hmm_kernel {

inline std::size_t tri_size(int K) { return static_cast<std::size_t>(K) * (K + 1) / 2; }
inline std::size_t tri_offset(int i) { return static_cast<std::size_t>(i) * (i + 1) / 2; }

// A total below this is rescaled to keep the values away from underflow.
constexpr double underflow_limit = 1e-100;

// ---- Sums ------------------------------------------------------------------

// Row sums R (K values) of the full symmetric matrix of T; returns the total.
double row_sums(int K, const double* T, double* R);
// Total of the full symmetric matrix of T.
double tri_total(int K, const double* T);

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
// next step uses it undivided).
double forward_step(int K, double stay, double jump, const double* Fp, const double* Rp, double Tp,
                    const double* h, const double* ecol, double* F, double* R);

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

// The same backward recursion carried on G = E_s * B_s instead of B_s, as
// the per-individual pipeline runs it (one load and one store per entry). The
// values equal those of backward_step bit for bit: the step reads the same
// product E_{s+1} * B_{s+1} either way.
//
// weighted: row sums R and total of E * B; G = E * B when G is not null.
double weighted(int K, const double* B, const double* h, const double* ecol, double* G, double* R);
// G_s = (transition of Gn) * E_s with row sums Rg_out (distinct from Rg);
// returns the total, without rescaling (the caller rescales, see below).
double gamma_step(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg, const double* h,
                  const double* ecol, double* G, double* Rg_out);
// B_s = transition of Gn = E_{s+1} * B_{s+1}, no emission. When the total of
// gamma_step is below the limit, the caller forms B_s with this, divides B_s
// and the row sums by the total, and forms G_s again with weighted.
void backward_from_gamma(int K, double stay, double jump, const double* Gn, const double* Rg, double Tg, double* B);

// ---- Posterior -------------------------------------------------------------

// Pair posterior at a position from the left flank's forward values F and the
// right flank's backward values B. Unless a distance is 0, each array is first
// carried to the position by one transition step with e = exp(-rate*d/K),
// jump = (1-e)/K, stay = e + jump. Then P = F*B, divided by its total.
// scratch must hold 2K doubles.
void posterior(int K, double rate, double left_distance, double right_distance, const double* F,
               const double* B, double* P, double* scratch);

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

    BranchLayout() = default;
    // child_a / child_b per node id; throws std::invalid_argument when they do
    // not describe a forest over the K leaves.
    BranchLayout(int K, std::vector<int> child_a, std::vector<int> child_b);
    int n_nodes() const { return static_cast<int>(child_a.size()); }
};

// For every node of the layout: both[n] = probability that both copies descend
// from the node's branch, one[n] = probability that exactly one does. P is the
// pair posterior, m its haplotype probabilities. work must hold 2 * n_nodes
// doubles. O(K^2) for the whole tree.
void branch_probabilities(BranchLayout const& layout, const double* P, const double* m, double* both,
                          double* one, double* work);

// ---- Panel and per-individual pipeline --------------------------------------

// The reference panel in compact form, prepared once per run.
struct Panel {
    int K = 0;                       // haplotypes
    int L = 0;                       // SNPs
    int N = 0;                       // individuals
    std::vector<double> alleles;     // L x K, 0.0 / 1.0, SNP-major
    std::vector<double> stay, jump;  // per SNP, from the previous SNP (unused at 0)
    std::vector<double> position;    // per SNP
    std::vector<double> rate_per_base;
    double emission[4][3] = {};      // emission[g][a] = E[a][g]
    std::vector<std::uint8_t> genotypes;  // N x L genotype codes, individual-major

    const double* h(int s) const { return alleles.data() + static_cast<std::size_t>(s) * K; }
    const std::uint8_t* genotypes_of(int n) const { return genotypes.data() + static_cast<std::size_t>(n) * L; }
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
class PosteriorSink {
public:
    template <class F>
    PosteriorSink(F& f) : object_(&f), call_([](void* o, int p, const double* P) { (*static_cast<F*>(o))(p, P); }) {}
    void operator()(int p, const double* P) const { call_(object_, p, P); }

private:
    void* object_;
    void (*call_)(void*, int, const double*);
};

// Per-thread buffers for one individual at a time; grown on first use and
// reused afterwards. Memory: one pair array per kept forward flank plus five
// working pair arrays, independent of the number of SNPs.
class Workspace {
public:
    // Runs both passes for one individual's genotype codes (L values) and
    // hands every position's posterior to sink, in the order the backward pass
    // reaches them. The results are those of full storage, bit for bit.
    void run(Panel const& panel, Schedule const& schedule, const std::uint8_t* genotypes, PosteriorSink sink);

private:
    void reserve(int K, int n_kept);
    int K_ = -1;
    std::vector<double> f_, rf_[2];  // forward values (updated in place) and row sums
    std::vector<double> kept_;       // n_kept forward arrays
    std::vector<double> b_, g_[2], rg_[2];  // backward values, E * B (rolling) and its row sums
    std::vector<double> p_, scratch_;
};

}  // namespace hmm_kernel
