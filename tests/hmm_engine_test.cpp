// The haplotype-pair engine against independent computations: a brute-force
// ordered-pair model with an explicit K^2 x K^2 transition matrix, a plain
// serial implementation of the recursions with the same rescaling rules, and
// the full-storage passes (which the per-individual pipeline must reproduce
// bit for bit).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "hmm/hmm.h"
#include "hmm/kernel.h"

namespace {

using Tri = std::vector<std::vector<double>>;  // row i has i + 1 values
using Mat = std::vector<std::vector<double>>;
using hmm_kernel::tri_offset;

// ---- Panels ------------------------------------------------------------------

struct PanelShape {
    int K = 3, L = 6, N = 3;
    double theta = 0.5;
    // Runs of SNPs where every haplotype carries allele 0 and every individual
    // is called with two copies of allele 1: the totals underflow and both
    // rescalings fire.
    bool mismatch_runs = false;
};

PanelShape shape_of(int K, int L, int N, double theta = 0.5, bool runs = false) { return {K, L, N, theta, runs}; }

HMM make_hmm(PanelShape const& shape, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    HMM h;
    h.n_haplotypes = shape.K;
    h.n_individuals = shape.N;
    double const e = 0.5 * shape.theta / (shape.theta + shape.K), s = 1.0 - e;
    h.theta = shape.theta;
    h.mutation_matrix = {{s * s, 2 * s * e, e * e, 1.0}, {s * e, s * s + e * e, s * e, 1.0}, {e * e, 2 * s * e, s * s, 1.0}};
    double pos = 1000.0, gen = 0.0, prev_pos = 0.0, prev_gen = 0.0;
    for (int l = 0; l < shape.L; ++l) {
        snp x;
        bool const run = shape.mismatch_runs && (l % 7) >= 2;
        for (int k = 0; k < shape.K; ++k) x.haplotype_alleles.push_back(run ? 0 : (u(rng) < 0.4 ? 1 : 0));
        for (int n = 0; n < shape.N; ++n) x.genotypes.push_back(run ? 2 : static_cast<int>(u(rng) * 4));
        if (l > 0) {
            double const jump = (1.0 - std::exp(-(gen - prev_gen) / shape.K)) / shape.K;
            x.switch_rates = {1.0 - (shape.K - 1) * jump, jump};
            x.rate_per_base = (gen - prev_gen) / (pos - prev_pos);
        }
        h.snps[pos] = x;
        prev_pos = pos;
        prev_gen = gen;
        pos += 10.0 + std::floor(u(rng) * 500.0);
        gen += 2.0 * u(rng);
    }
    return h;
}

std::vector<snp const*> snp_list(HMM const& h) {
    std::vector<snp const*> v;
    for (auto const& e : h.snps) v.push_back(&e.second);
    return v;
}

// Flanks of positions at the first and last SNP, at inner SNPs, and between
// SNPs, several sharing flanks.
std::vector<hmm_kernel::Flank> test_flanks(HMM const& h) {
    std::vector<double> at, out;
    for (auto const& e : h.snps) at.push_back(e.first);
    out = {at.front(), at.back(), at.back() - 1.0};
    for (std::size_t s = 0; s + 1 < at.size(); ++s) {
        out.push_back(at[s] + 0.25 * (at[s + 1] - at[s]));
        if (s % 2 == 0) out.push_back(at[s] + 0.75 * (at[s + 1] - at[s]));
        if (s % 3 == 1) out.push_back(at[s]);
    }
    return find_position_flanks(h, out);
}

bool close_rel(double a, double b, double tol = 1e-12) {
    return a == b || std::fabs(a - b) <= tol * std::max(std::fabs(a), std::fabs(b));
}

bool bit_identical(std::vector<double> const& a, std::vector<double> const& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

double emission(HMM const& h, snp const& s, int i, int j, int n) {
    return h.mutation_matrix[s.haplotype_alleles[i] + s.haplotype_alleles[j]][s.genotypes[n]];
}

// Full-storage posterior of the current individual at a flank.
std::vector<double> posterior_at(HMM& h, hmm_kernel::Flank const& f) {
    auto const v = snp_list(h);
    std::vector<double> P;
    h.find_matrix_private(P, f.rate, f.left_distance, f.right_distance, v[f.right]->backward_probs,
                          v[f.left]->forward_probs);
    return P;
}

// ---- Brute force on ordered pairs (x = i * K + j) -----------------------------

// Explicit pair transition T((i,j) -> (k,l)) = t(i->k) t(j->l).
Mat pair_transition(int K, double stay, double jump) {
    Mat T(K * K, std::vector<double>(K * K));
    for (int x = 0; x < K * K; ++x)
        for (int y = 0; y < K * K; ++y) T[x][y] = (x / K == y / K ? stay : jump) * (x % K == y % K ? stay : jump);
    return T;
}

// Row vector times T (forward) or T times column vector (backward).
std::vector<double> apply(Mat const& T, std::vector<double> const& v, bool forward) {
    std::vector<double> out(v.size(), 0.0);
    for (std::size_t x = 0; x < v.size(); ++x)
        for (std::size_t y = 0; y < v.size(); ++y) {
            if (forward) out[y] += v[x] * T[x][y];
            else out[x] += T[x][y] * v[y];
        }
    return out;
}

struct Brute {
    std::vector<std::vector<double>> alpha, beta;  // per SNP, K*K ordered pairs
};

Brute brute_force(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    auto const v = snp_list(h);
    int const L = static_cast<int>(v.size());
    auto E = [&](int s, int x) { return emission(h, *v[s], x / K, x % K, n); };
    Brute b{Mat(L, std::vector<double>(K * K)), Mat(L, std::vector<double>(K * K, 1.0))};
    for (int x = 0; x < K * K; ++x) b.alpha[0][x] = E(0, x) / (K * K);
    for (int s = 1; s < L; ++s) {
        b.alpha[s] = apply(pair_transition(K, v[s]->switch_rates[0], v[s]->switch_rates[1]), b.alpha[s - 1], true);
        for (int x = 0; x < K * K; ++x) b.alpha[s][x] *= E(s, x);
    }
    for (int s = L - 2; s >= 0; --s) {
        std::vector<double> weighted = b.beta[s + 1];
        for (int x = 0; x < K * K; ++x) weighted[x] *= E(s + 1, x);
        b.beta[s] = apply(pair_transition(K, v[s + 1]->switch_rates[0], v[s + 1]->switch_rates[1]), weighted, false);
    }
    return b;
}

// Ordered-pair posterior at a position with the given flanks.
std::vector<double> brute_posterior(int K, Brute const& b, hmm_kernel::Flank const& f) {
    std::vector<double> a = b.alpha[f.left], c = b.beta[f.right], p(K * K);
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        auto carry = [&](double d) {
            double const e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K;
            return pair_transition(K, e + jump, jump);
        };
        a = apply(carry(f.left_distance), a, true);
        c = apply(carry(f.right_distance), c, false);
    }
    double total = 0.0;
    for (int x = 0; x < K * K; ++x) total += p[x] = a[x] * c[x];
    for (double& x : p) x /= total;
    return p;
}

std::vector<double> normalised(std::vector<double> v) {
    double t = 0.0;
    for (double x : v) t += x;
    for (double& x : v) x /= t;
    return v;
}

// The full symmetric matrix of a flat triangular array, as ordered pairs.
std::vector<double> full_from_flat(int K, const double* T) {
    std::vector<double> out(K * K);
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) out[i * K + j] = out[j * K + i] = T[tri_offset(i) + j];
    return out;
}

// ---- Plain reference recursions -----------------------------------------------

struct Reference {
    std::vector<Tri> F, B;
    int forward_rescales = 0, backward_rescales = 0;
};

Tri tri_filled(int K, double value) {
    Tri t(K);
    for (int i = 0; i < K; ++i) t[i].assign(i + 1, value);
    return t;
}

void scale(Tri& T, double by) {
    for (auto& row : T)
        for (double& x : row) x /= by;
}

// Row sums R and total of the full symmetric matrix.
double sums(Tri const& T, std::vector<double>& R) {
    int const K = static_cast<int>(T.size());
    double total = 0.0;
    R.assign(K, 0.0);
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) {
            R[i] += T[i][j];
            if (j != i) R[j] += T[i][j];
            total += (j != i ? 2.0 : 1.0) * T[i][j];
        }
    return total;
}

// Entry (i, j) after one pair transition with one-copy rates (stay, jump), from
// the row sums R and total of the array carried and its own entry Tij.
double step_value(double stay, double jump, std::vector<double> const& R, double total, double Tij, int i, int j) {
    double const a = stay - jump, b = jump;
    return ((R[i] + R[j]) * (a * b) + b * b * total) + (a * a) * Tij;
}

Reference reference(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    auto const v = snp_list(h);
    int const L = static_cast<int>(v.size());
    Reference r;
    r.F.assign(L, tri_filled(K, 0.0));
    r.B.assign(L, tri_filled(K, 1.0));
    auto E = [&](int s, int i, int j) { return emission(h, *v[s], i, j, n); };
    std::vector<double> R;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) r.F[0][i][j] = E(0, i, j) / static_cast<double>(K * K);
    double total = sums(r.F[0], R);
    for (int s = 1; s < L; ++s) {
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j)
                r.F[s][i][j] =
                    step_value(v[s]->switch_rates[0], v[s]->switch_rates[1], R, total, r.F[s - 1][i][j], i, j) *
                    E(s, i, j);
        total = sums(r.F[s], R);
        if (total < 1e-100) {  // rescale the stored values; the next step uses the undivided total
            ++r.forward_rescales;
            scale(r.F[s], total);
            for (double& x : R) x /= total;
        }
    }
    for (int s = L - 2; s >= 0; --s) {
        Tri g = tri_filled(K, 0.0);
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j) g[i][j] = E(s + 1, i, j) * r.B[s + 1][i][j];
        total = sums(g, R);
        if (total < 1e-100) {  // rescale the later SNP's stored values; go on with total 1
            ++r.backward_rescales;
            for (double& x : R) x /= total;
            scale(r.B[s + 1], total);
            total = 1.0;
        }
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j)
                r.B[s][i][j] = step_value(v[s + 1]->switch_rates[0], v[s + 1]->switch_rates[1], R, total,
                                          E(s + 1, i, j) * r.B[s + 1][i][j], i, j);
    }
    return r;
}

Tri reference_posterior(int K, hmm_kernel::Flank const& f, Tri F, Tri B) {
    auto carry = [&](Tri& T, double d) {
        std::vector<double> R;
        double const total = sums(T, R), e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K;
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j) T[i][j] = step_value(e + jump, jump, R, total, T[i][j], i, j);
    };
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        carry(F, f.left_distance);
        carry(B, f.right_distance);
    }
    Tri P = tri_filled(K, 0.0);
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) P[i][j] = F[i][j] * B[i][j];
    std::vector<double> R;
    scale(P, sums(P, R));
    return P;
}

// ---- Trees ---------------------------------------------------------------------

// Node table over K leaves from a list of merges of 0-based node ids.
tree_nodes make_tree(int K, std::vector<std::pair<int, int>> const& merges) {
    tree_nodes t;
    for (int l = 0; l < K; ++l) t[l].leaves_below = {l};
    int id = K;
    for (auto const& m : merges) {
        tree_node& x = t[id];
        x.time = id - K + 1.0;
        x.child_a = m.first;
        x.child_b = m.second;
        x.leaves_below = t[m.first].leaves_below;
        x.leaves_below.insert(t[m.second].leaves_below.begin(), t[m.second].leaves_below.end());
        for (int c : {m.first, m.second}) {
            t[c].parent_time = x.time;
            t[c].branch_length = x.time - t[c].time;
        }
        ++id;
    }
    for (auto& [i, x] : t)
        for (int o = 0; o < K; ++o)
            if (!x.leaves_below.count(o)) x.leaves_outside.insert(o);
    return t;
}

// Random full binary tree over K leaves.
tree_nodes random_tree(int K, std::mt19937_64& rng) {
    std::vector<int> active;
    for (int l = 0; l < K; ++l) active.push_back(l);
    std::vector<std::pair<int, int>> merges;
    for (int next = K; active.size() > 1; ++next) {
        std::shuffle(active.begin(), active.end(), rng);
        merges.push_back({active[active.size() - 1], active[active.size() - 2]});
        active.resize(active.size() - 2);
        active.push_back(next);
    }
    return make_tree(K, merges);
}

double P_at(const double* P, int x, int y) { return x >= y ? P[tri_offset(x) + y] : P[tri_offset(y) + x]; }

// Branch sums from a pair posterior given as ordered pairs: both copies below
// the node, or exactly one.
void leaf_set_sums(int K, tree_node const& node, std::function<double(int, int)> const& P, double& both, double& one) {
    both = one = 0.0;
    for (int x = 0; x < K; ++x)
        for (int y = 0; y < K; ++y) {
            bool const bx = node.leaves_below.count(x), by = node.leaves_below.count(y);
            if (bx && by) both += P(x, y);
            if (bx && !by) one += 2.0 * P(x, y);
        }
}

// Checks the kernel's branch sums for every node of tree against leaf-set sums.
void expect_branches(int K, tree_nodes const& tree, const double* P, std::function<double(int, int)> const& ordered) {
    auto const layout = make_branch_layout(tree, K);
    ASSERT_EQ(static_cast<int>(tree.size()), layout.n_nodes());
    std::vector<double> m(K), both(layout.n_nodes()), one(layout.n_nodes()), work(2 * layout.n_nodes());
    hmm_kernel::haplotype_probabilities(K, P, m.data());
    hmm_kernel::branch_probabilities(layout, P, m.data(), both.data(), one.data(), work.data());
    for (auto const& [id, node] : tree) {
        double eb, eo;
        leaf_set_sums(K, node, ordered, eb, eo);
        EXPECT_NEAR(eb, both[id], 1e-12) << "K=" << K << " node " << id;
        EXPECT_NEAR(eo, one[id], 1e-12) << "K=" << K << " node " << id;
    }
    // A leaf's branch: both = P(l, l) exactly, one = 2 * sum over the others.
    for (int l = 0; l < K; ++l) {
        double others = 0.0;
        for (int j = 0; j < K; ++j) others += j != l ? P_at(P, l, j) : 0.0;
        EXPECT_EQ(P_at(P, l, l), both[l]);
        EXPECT_NEAR(2.0 * others, one[l], 1e-12);
    }
}

// ---- Lean pipeline helpers -----------------------------------------------------

// Every individual's posterior at every flank, from the full-storage passes.
std::vector<std::vector<double>> full_storage_posteriors(HMM& h, std::vector<hmm_kernel::Flank> const& flanks) {
    std::vector<std::vector<double>> out;
    for (int n = 0; n < h.n_individuals; ++n) {
        h.forward(n);
        h.backward(n);
        for (auto const& f : flanks) out.push_back(posterior_at(h, f));
    }
    return out;
}

// The same from the per-individual pipeline, individuals split over threads.
std::vector<std::vector<double>> lean_posteriors(HMM const& h, std::vector<hmm_kernel::Flank> const& flanks,
                                                 int threads) {
    hmm_kernel::Panel const panel = make_panel(h);
    hmm_kernel::Schedule const schedule(panel.L, flanks);
    std::size_t const P = flanks.size();
    std::vector<std::vector<double>> out(panel.N * P);
    auto work = [&](int first) {
        hmm_kernel::Workspace ws;
        for (int n = first; n < panel.N; n += threads) {
            auto sink = [&](int p, const double* x) { out[n * P + p].assign(x, x + hmm_kernel::tri_size(panel.K)); };
            ws.run(panel, schedule, panel.genotypes_of(n), sink);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) pool.emplace_back(work, t);
    for (auto& t : pool) t.join();
    return out;
}

}  // namespace

// ---- Tests -------------------------------------------------------------------------

TEST(HmmBruteForce, PassesPosteriorsAndBranchesMatchOrderedPairModel) {
    std::mt19937_64 rng(7);
    for (int K = 1; K <= 4; ++K)
        for (unsigned seed = 1; seed <= 4; ++seed) {
            HMM h = make_hmm(shape_of(K, 5, 3, K == 1 ? 0.3 : 0.2 + 0.3 * seed), 100 * K + seed);
            SCOPED_TRACE("K=" + std::to_string(K) + " seed " + std::to_string(seed));
            auto const v = snp_list(h);
            tree_nodes const tree = random_tree(K, rng);
            for (int n = 0; n < h.n_individuals; ++n) {
                h.forward(n);
                h.backward(n);
                Brute const b = brute_force(h, n);
                for (int s = 0; s < 5; ++s) {
                    auto const fa = normalised(b.alpha[s]), fk = normalised(full_from_flat(K, v[s]->forward_probs.data()));
                    auto const ba = normalised(b.beta[s]), bk = normalised(full_from_flat(K, v[s]->backward_probs.data()));
                    for (int x = 0; x < K * K; ++x) {
                        ASSERT_TRUE(close_rel(fa[x], fk[x])) << "forward snp " << s;
                        ASSERT_TRUE(close_rel(ba[x], bk[x])) << "backward snp " << s;
                    }
                }
                for (auto const& f : test_flanks(h)) {
                    auto const P = posterior_at(h, f);
                    auto const expected = brute_posterior(K, b, f), got = full_from_flat(K, P.data());
                    for (int x = 0; x < K * K; ++x) ASSERT_TRUE(close_rel(expected[x], got[x])) << "at " << f.left;
                    std::vector<double> m(K);
                    hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
                    for (int k = 0; k < K; ++k) {
                        double e = 0.0;
                        for (int l = 0; l < K; ++l) e += expected[k * K + l];
                        EXPECT_TRUE(close_rel(e, m[k])) << "haplotype " << k;
                    }
                    expect_branches(K, tree, P.data(), [&](int x, int y) { return expected[x * K + y]; });
                }
            }
        }
}

TEST(HmmReference, KernelMatchesPlainRecursionsIncludingRescaling) {
    int forward_rescales = 0, backward_rescales = 0;
    for (int K : {1, 2, 5, 9, 17, 30})
        for (bool runs : {false, true}) {
            HMM h = make_hmm(shape_of(K, 24, 2, runs ? 1e-28 : 0.7, runs), 31 * K + runs);
            SCOPED_TRACE("K=" + std::to_string(K) + " runs=" + std::to_string(runs));
            auto const v = snp_list(h);
            for (int n = 0; n < h.n_individuals; ++n) {
                h.forward(n);
                h.backward(n);
                Reference const r = reference(h, n);
                forward_rescales += r.forward_rescales;
                backward_rescales += r.backward_rescales;
                for (int s = 0; s < 24; ++s)
                    for (int i = 0; i < K; ++i)
                        for (int j = 0; j <= i; ++j) {
                            ASSERT_TRUE(close_rel(r.F[s][i][j], v[s]->forward_probs[tri_offset(i) + j])) << "F " << s;
                            ASSERT_TRUE(close_rel(r.B[s][i][j], v[s]->backward_probs[tri_offset(i) + j])) << "B " << s;
                        }
                for (auto const& f : test_flanks(h)) {
                    auto const P = posterior_at(h, f);
                    Tri const e = reference_posterior(K, f, r.F[f.left], r.B[f.right]);
                    for (int i = 0; i < K; ++i)
                        for (int j = 0; j <= i; ++j) ASSERT_TRUE(close_rel(e[i][j], P[tri_offset(i) + j]));
                }
            }
        }
    // The mismatch runs must actually have exercised both rescalings.
    EXPECT_GT(forward_rescales, 0);
    EXPECT_GT(backward_rescales, 0);
}

TEST(HmmReference, SingleSnpHoldsPriorTimesEmissionAndOnes) {
    HMM h = make_hmm(shape_of(4, 1, 2), 5);
    snp const& s = h.snps.begin()->second;
    for (int n = 0; n < 2; ++n) {
        h.forward(n);
        h.backward(n);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j <= i; ++j) {
                EXPECT_EQ(emission(h, s, i, j, n) / 16.0, s.forward_probs[tri_offset(i) + j]);
                EXPECT_EQ(1.0, s.backward_probs[tri_offset(i) + j]);
            }
    }
}

TEST(HmmLeanPipeline, BitIdenticalToFullStorageWithBothRescalingsFiring) {
    for (int K : {1, 3, 12, 21})
        for (bool runs : {false, true}) {
            // With runs the last SNP is a mismatch too, with totals small enough
            // to rescale even there, where the backward values are all 1.
            HMM h = make_hmm(shape_of(K, 31, 3, runs ? 1e-60 : 0.4, runs), 77 * K + runs);
            if (runs && K > 1) {  // these panels must rescale both passes, repeatedly
                Reference const r = reference(h, 0);
                EXPECT_GT(r.forward_rescales, 2) << K;
                EXPECT_GT(r.backward_rescales, 2) << K;
            }
            auto const flanks = test_flanks(h);
            auto const lean = lean_posteriors(h, flanks, 1);
            auto const full = full_storage_posteriors(h, flanks);
            ASSERT_EQ(full.size(), lean.size());
            for (std::size_t k = 0; k < full.size(); ++k)
                ASSERT_TRUE(bit_identical(full[k], lean[k])) << "K=" << K << " runs=" << runs << " entry " << k;
        }
}

TEST(HmmLeanPipeline, TwoThreadsGiveTheSameBits) {
    HMM h = make_hmm(shape_of(16, 40, 7, 1e-28, true), 11);
    auto const flanks = test_flanks(h);
    auto const one = lean_posteriors(h, flanks, 1), two = lean_posteriors(h, flanks, 2);
    ASSERT_EQ(one.size(), two.size());
    for (std::size_t k = 0; k < one.size(); ++k) ASSERT_TRUE(bit_identical(one[k], two[k])) << "entry " << k;
}

TEST(HmmLeanPipeline, WorkspaceReusedAcrossPanelsAndIndividuals) {
    // A workspace used on a larger panel, then a smaller one, then the larger
    // again gives the results of a fresh one.
    HMM hb = make_hmm(shape_of(10, 15, 3), 1), hs = make_hmm(shape_of(4, 9, 3), 2);
    auto const pb = make_panel(hb), ps = make_panel(hs);
    hmm_kernel::Schedule const sb(pb.L, test_flanks(hb)), ss(ps.L, test_flanks(hs));
    std::vector<std::vector<double>> got(sb.flanks.size()), fresh(sb.flanks.size());
    auto into = [](std::vector<std::vector<double>>& v) {
        return [&v](int p, const double* P) { v[p].assign(P, P + hmm_kernel::tri_size(10)); };
    };
    auto ignore = [](int, const double*) {};
    auto c1 = into(got), c2 = into(fresh);
    hmm_kernel::Workspace shared, clean;
    shared.run(pb, sb, pb.genotypes_of(0), ignore);
    shared.run(ps, ss, ps.genotypes_of(1), ignore);
    shared.run(pb, sb, pb.genotypes_of(2), c1);
    clean.run(pb, sb, pb.genotypes_of(2), c2);
    for (std::size_t p = 0; p < got.size(); ++p) EXPECT_TRUE(bit_identical(got[p], fresh[p])) << p;
}

TEST(HmmPosterior, PositionAtSnpOrWithAZeroDistanceUsesNoPropagation) {
    HMM h = make_hmm(shape_of(5, 6, 3), 21);
    h.forward(1);
    h.backward(1);
    snp const& s = std::next(h.snps.begin(), 3)->second;
    auto at = [&](double rate, double dl, double dr) {
        std::vector<double> P;
        h.find_matrix_private(P, rate, dl, dr, s.backward_probs, s.forward_probs);
        return P;
    };
    std::vector<double> const at_snp = at(0.01, 0.0, 0.0);
    EXPECT_TRUE(bit_identical(at_snp, at(1e9, 0.0, 0.0)));
    EXPECT_TRUE(bit_identical(at_snp, at(0.01, 0.0, 50.0)));
    EXPECT_TRUE(bit_identical(at_snp, at(0.01, 50.0, 0.0)));
    double total = 0.0;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j <= i; ++j)
            total += (i == j ? 1.0 : 2.0) * s.forward_probs[tri_offset(i) + j] * s.backward_probs[tri_offset(i) + j];
    for (std::size_t o = 0; o < at_snp.size(); ++o)
        EXPECT_TRUE(close_rel(s.forward_probs[o] * s.backward_probs[o] / total, at_snp[o], 1e-14));
    EXPECT_FALSE(bit_identical(at_snp, at(0.01, 50.0, 50.0)));  // both distances: propagated
}

TEST(HmmBranches, FastSumsMatchLeafSetSumsOnBalancedChainAndRandomTrees) {
    std::mt19937_64 rng(4);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<std::pair<int, tree_nodes>> trees = {
        {4, make_tree(4, {{0, 1}, {2, 3}, {4, 5}})},
        {5, make_tree(5, {{0, 1}, {5, 2}, {6, 3}, {7, 4}})},  // chain
        {5, make_tree(5, {{4, 3}, {2, 5}, {1, 6}, {7, 0}})},  // chain, leaves in reverse
        {1, make_tree(1, {})},
        {2, make_tree(2, {{1, 0}})},
    };
    for (int K : {6, 9, 33, 64}) trees.push_back({K, random_tree(K, rng)});
    for (auto const& [K, tree] : trees) {
        std::vector<double> P(hmm_kernel::tri_size(K));
        for (double& x : P) x = u(rng) * u(rng);
        double const t = hmm_kernel::tri_total(K, P.data());
        for (double& x : P) x /= t;
        expect_branches(K, tree, P.data(), [&](int x, int y) { return P_at(P.data(), x, y); });
    }
}

TEST(HmmBranches, LayoutRejectsTablesThatAreNotTrees) {
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 0}, {-1, -1, -1, 0}), std::invalid_argument);  // self-merge
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 4}, {-1, -1, -1, 1}), std::invalid_argument);  // later id
    EXPECT_THROW(hmm_kernel::BranchLayout(2, {-1, 0}, {-1, -1}), std::invalid_argument);  // leaf with children
    tree_nodes gap = make_tree(3, {{0, 1}, {3, 2}});
    gap[7] = gap[4];
    gap.erase(4);
    EXPECT_THROW(make_branch_layout(gap, 3), std::invalid_argument);
}

TEST(HmmFlanks, LeftRightDistancesAndRate) {
    std::vector<double> const pos = {100.0, 200.0, 350.0}, rate = {0.0, 0.5, 0.25};
    struct Case { double t; int left, right; double dl, dr, rate; };
    std::vector<Case> const cases = {{100.0, 0, 0, 0.0, 0.0, 0.0}, {150.0, 0, 1, 50.0, 50.0, 0.5},
                                     {200.0, 1, 1, 0.0, 0.0, 0.5}, {349.5, 1, 2, 149.5, 0.5, 0.25},
                                     {350.0, 2, 2, 0.0, 0.0, 0.25}};
    for (auto const& c : cases) {
        auto const f = hmm_kernel::find_flanks(pos, rate, {c.t}).at(0);
        EXPECT_EQ(c.left, f.left) << c.t;
        EXPECT_EQ(c.right, f.right) << c.t;
        EXPECT_EQ(c.dl, f.left_distance) << c.t;
        EXPECT_EQ(c.dr, f.right_distance) << c.t;
        EXPECT_EQ(c.rate, f.rate) << c.t;
    }
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {99.0}), std::out_of_range);
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {350.5}), std::out_of_range);

    // From the store: SNP positions and their rates per base.
    HMM h = make_hmm(PanelShape{}, 1);
    auto const g = find_position_flanks(h, {std::next(h.snps.begin(), 2)->first + 1.0});
    EXPECT_EQ(2, g[0].left);
    EXPECT_EQ(3, g[0].right);
    EXPECT_EQ(std::next(h.snps.begin(), 3)->second.rate_per_base, g[0].rate);
}
