// The haplotype-pair engine against independent computations: a brute-force
// ordered-pair model with an explicit K^2 x K^2 transition matrix, a plain
// serial implementation of the recursions with the same rescaling rules, and
// the full-storage passes (which the per-individual pipeline must reproduce
// bit for bit).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "hmm/hmm.h"
#include "hmm/kernel.h"

namespace {

using Tri = std::vector<std::vector<double>>;  // row i has i + 1 values
using Mat = std::vector<std::vector<double>>;

// ---- Panels ------------------------------------------------------------------

struct PanelSpec {
    int K = 3;
    int L = 6;
    int N = 3;
    double theta = 0.5;
    // Make runs of SNPs where every haplotype carries allele 0 and every
    // individual is called with two copies of allele 1, so that the totals
    // underflow and both rescalings fire.
    bool mismatch_runs = false;
};

void set_emission(HMM& h, double theta) {
    double const e = 0.5 * theta / (theta + h.n_haplotypes), s = 1.0 - e;
    h.theta = theta;
    h.mutation_matrix = {{s * s, 2 * s * e, e * e, 1.0}, {s * e, s * s + e * e, s * e, 1.0}, {e * e, 2 * s * e, s * s, 1.0}};
}

HMM make_hmm(PanelSpec const& spec, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    HMM h;
    h.n_haplotypes = spec.K;
    h.n_individuals = spec.N;
    set_emission(h, spec.theta);
    double pos = 1000.0, gen = 0.0, prev_pos = 0.0, prev_gen = 0.0;
    for (int s = 0; s < spec.L; ++s) {
        snp x;
        bool const run = spec.mismatch_runs && (s % 7) >= 2;
        for (int k = 0; k < spec.K; ++k) x.haplotype_alleles.push_back(run ? 0 : (u(rng) < 0.4 ? 1 : 0));
        for (int n = 0; n < spec.N; ++n) x.genotypes.push_back(run ? 2 : static_cast<int>(u(rng) * 4));
        if (s > 0) {
            double const rho = gen - prev_gen;
            double const jump = (1.0 - std::exp(-rho / spec.K)) / spec.K;
            x.switch_rates = {1.0 - (spec.K - 1) * jump, jump};
            x.rate_per_base = rho / (pos - prev_pos);
        }
        h.snps[pos] = x;
        prev_pos = pos;
        prev_gen = gen;
        pos += 10.0 + std::floor(u(rng) * 500.0);
        gen += 2.0 * u(rng);
    }
    return h;
}

std::vector<double> snp_positions(HMM const& h) {
    std::vector<double> p;
    for (auto const& e : h.snps) p.push_back(e.first);
    return p;
}

std::vector<snp const*> snp_list(HMM const& h) {
    std::vector<snp const*> v;
    for (auto const& e : h.snps) v.push_back(&e.second);
    return v;
}

// Positions at the first and last SNP, at inner SNPs, and between SNPs,
// several sharing flanks.
std::vector<double> test_positions(HMM const& h) {
    std::vector<double> at = snp_positions(h), out;
    out.push_back(at.front());
    out.push_back(at.back());
    for (std::size_t s = 0; s + 1 < at.size(); ++s) {
        out.push_back(at[s] + 0.25 * (at[s + 1] - at[s]));
        if (s % 2 == 0) out.push_back(at[s] + 0.75 * (at[s + 1] - at[s]));
        if (s % 3 == 1) out.push_back(at[s]);
    }
    out.push_back(at.back() - 1.0);
    return out;
}

bool close_rel(double a, double b, double tol = 1e-12) {
    if (a == b) return true;
    return std::fabs(a - b) <= tol * std::max(std::fabs(a), std::fabs(b));
}

// ---- Brute force on ordered pairs --------------------------------------------

// One-copy transition: stay on the diagonal, jump elsewhere.
Mat one_copy(int K, double stay, double jump) {
    Mat t(K, std::vector<double>(K, jump));
    for (int k = 0; k < K; ++k) t[k][k] = stay;
    return t;
}

// Explicit K^2 x K^2 pair transition T((i,j) -> (k,l)) = t(i->k) t(j->l).
Mat pair_transition(Mat const& t) {
    int const K = static_cast<int>(t.size());
    Mat T(K * K, std::vector<double>(K * K));
    for (int i = 0; i < K; ++i)
        for (int j = 0; j < K; ++j)
            for (int k = 0; k < K; ++k)
                for (int l = 0; l < K; ++l) T[i * K + j][k * K + l] = t[i][k] * t[j][l];
    return T;
}

std::vector<double> apply_forward(Mat const& T, std::vector<double> const& a) {
    std::vector<double> out(a.size(), 0.0);
    for (std::size_t x = 0; x < a.size(); ++x)
        for (std::size_t y = 0; y < a.size(); ++y) out[y] += a[x] * T[x][y];
    return out;
}

std::vector<double> apply_backward(Mat const& T, std::vector<double> const& b) {
    std::vector<double> out(b.size(), 0.0);
    for (std::size_t x = 0; x < b.size(); ++x)
        for (std::size_t y = 0; y < b.size(); ++y) out[x] += T[x][y] * b[y];
    return out;
}

struct Brute {
    std::vector<std::vector<double>> alpha, beta;  // per SNP, K*K ordered pairs
};

double emission(HMM const& h, snp const& s, int i, int j, int n) {
    return h.mutation_matrix[s.haplotype_alleles[i] + s.haplotype_alleles[j]][s.genotypes[n]];
}

Brute brute_force(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    auto const v = snp_list(h);
    int const L = static_cast<int>(v.size());
    Brute b;
    b.alpha.assign(L, std::vector<double>(K * K));
    b.beta.assign(L, std::vector<double>(K * K, 1.0));
    for (int i = 0; i < K; ++i)
        for (int j = 0; j < K; ++j) b.alpha[0][i * K + j] = emission(h, *v[0], i, j, n) / (K * K);
    for (int s = 1; s < L; ++s) {
        Mat const T = pair_transition(one_copy(K, v[s]->switch_rates[0], v[s]->switch_rates[1]));
        b.alpha[s] = apply_forward(T, b.alpha[s - 1]);
        for (int i = 0; i < K; ++i)
            for (int j = 0; j < K; ++j) b.alpha[s][i * K + j] *= emission(h, *v[s], i, j, n);
    }
    for (int s = L - 2; s >= 0; --s) {
        Mat const T = pair_transition(one_copy(K, v[s + 1]->switch_rates[0], v[s + 1]->switch_rates[1]));
        std::vector<double> weighted = b.beta[s + 1];
        for (int k = 0; k < K; ++k)
            for (int l = 0; l < K; ++l) weighted[k * K + l] *= emission(h, *v[s + 1], k, l, n);
        b.beta[s] = apply_backward(T, weighted);
    }
    return b;
}

// Ordered-pair posterior at a position with the given flanks.
std::vector<double> brute_posterior(HMM const& h, Brute const& b, hmm_kernel::Flank const& f) {
    int const K = h.n_haplotypes;
    std::vector<double> a = b.alpha[f.left], c = b.beta[f.right];
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        auto carry = [&](double d) {
            double const e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K;
            return pair_transition(one_copy(K, e + jump, jump));
        };
        a = apply_forward(carry(f.left_distance), a);
        c = apply_backward(carry(f.right_distance), c);
    }
    std::vector<double> p(K * K);
    double total = 0.0;
    for (int x = 0; x < K * K; ++x) total += p[x] = a[x] * c[x];
    for (double& x : p) x /= total;
    return p;
}

// Normalises an ordered-pair vector, or the full symmetric matrix of a flat
// triangular array, to sum 1, as an ordered-pair vector.
std::vector<double> normalised(std::vector<double> v) {
    double t = 0.0;
    for (double x : v) t += x;
    for (double& x : v) x /= t;
    return v;
}

std::vector<double> full_from_flat(int K, const double* T) {
    std::vector<double> out(K * K);
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) out[i * K + j] = out[j * K + i] = T[hmm_kernel::tri_offset(i) + j];
    return out;
}

// ---- Plain reference recursions -----------------------------------------------

struct Reference {
    std::vector<Tri> F, B;
    int forward_rescales = 0, backward_rescales = 0;
};

Tri tri_zero(int K) {
    Tri t(K);
    for (int i = 0; i < K; ++i) t[i].assign(i + 1, 0.0);
    return t;
}

void sums(Tri const& T, std::vector<double>& R, double& total) {
    int const K = static_cast<int>(T.size());
    R.assign(K, 0.0);
    total = 0.0;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) {
            R[i] += T[i][j];
            if (j != i) R[j] += T[i][j];
            total += (j != i ? 2.0 : 1.0) * T[i][j];
        }
}

Reference reference(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    auto const v = snp_list(h);
    int const L = static_cast<int>(v.size());
    Reference r;
    r.F.assign(L, tri_zero(K));
    r.B.assign(L, tri_zero(K));
    auto E = [&](int s, int i, int j) { return emission(h, *v[s], i, j, n); };
    std::vector<double> R, Rn;
    double total = 0.0, tn = 0.0;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) r.F[0][i][j] = E(0, i, j) / static_cast<double>(K * K);
    sums(r.F[0], R, total);
    for (int s = 1; s < L; ++s) {
        double const a = v[s]->switch_rates[0] - v[s]->switch_rates[1], b = v[s]->switch_rates[1];
        double const aa = a * a, ab = a * b, bbt = b * b * total;
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j)
                r.F[s][i][j] = (((R[i] + R[j]) * ab + bbt) + aa * r.F[s - 1][i][j]) * E(s, i, j);
        sums(r.F[s], Rn, tn);
        if (tn < 1e-100) {
            ++r.forward_rescales;
            for (auto& row : r.F[s])
                for (double& x : row) x /= tn;
            for (double& x : Rn) x /= tn;
        }
        R = Rn;
        total = tn;  // undivided
    }
    for (auto& row : r.B[L - 1])
        for (double& x : row) x = 1.0;
    for (int s = L - 2; s >= 0; --s) {
        Tri g = tri_zero(K);
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j) g[i][j] = E(s + 1, i, j) * r.B[s + 1][i][j];
        sums(g, R, total);
        if (total < 1e-100) {
            ++r.backward_rescales;
            for (double& x : R) x /= total;
            for (auto& row : r.B[s + 1])
                for (double& x : row) x /= total;
            total = 1.0;
        }
        double const a = v[s + 1]->switch_rates[0] - v[s + 1]->switch_rates[1], b = v[s + 1]->switch_rates[1];
        double const aa = a * a, ab = a * b, bbt = b * b * total;
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j)
                r.B[s][i][j] = ((R[i] + R[j]) * ab + bbt) + aa * (E(s + 1, i, j) * r.B[s + 1][i][j]);
    }
    return r;
}

Tri reference_posterior(int K, hmm_kernel::Flank const& f, Tri F, Tri B) {
    auto carry = [&](Tri& T, double d) {
        std::vector<double> R;
        double total;
        sums(T, R, total);
        double const e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K, stay = e + jump;
        double const a = stay - jump, b = jump;
        for (int i = 0; i < K; ++i)
            for (int j = 0; j <= i; ++j) T[i][j] = ((R[i] + R[j]) * (a * b) + b * b * total) + (a * a) * T[i][j];
    };
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        carry(F, f.left_distance);
        carry(B, f.right_distance);
    }
    Tri P = tri_zero(K);
    double S = 0.0;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) {
            P[i][j] = F[i][j] * B[i][j];
            S += (j != i ? 2.0 : 1.0) * P[i][j];
        }
    for (auto& row : P)
        for (double& x : row) x /= S;
    return P;
}

// ---- Trees ---------------------------------------------------------------------

// Node table over K leaves from a list of merges of 0-based node ids.
tree_nodes make_tree(int K, std::vector<std::pair<int, int>> const& merges) {
    tree_nodes t;
    for (int l = 0; l < K; ++l) {
        tree_node x;
        x.leaves_below = {l};
        for (int o = 0; o < K; ++o)
            if (o != l) x.leaves_outside.insert(o);
        t[l] = x;
    }
    double time = 0.0;
    int id = K;
    for (auto const& m : merges) {
        time += 1.0;
        tree_node x;
        x.time = time;
        x.child_a = m.first;
        x.child_b = m.second;
        x.leaves_below = t[m.first].leaves_below;
        x.leaves_below.insert(t[m.second].leaves_below.begin(), t[m.second].leaves_below.end());
        for (int o = 0; o < K; ++o)
            if (!x.leaves_below.count(o)) x.leaves_outside.insert(o);
        for (int c : {m.first, m.second}) {
            t[c].parent_time = time;
            t[c].branch_length = time - t[c].time;
        }
        t[id++] = x;
    }
    return t;
}

// Random full binary tree over K leaves.
tree_nodes random_tree(int K, std::mt19937_64& rng) {
    std::vector<int> active;
    for (int l = 0; l < K; ++l) active.push_back(l);
    std::vector<std::pair<int, int>> merges;
    int next = K;
    while (active.size() > 1) {
        std::shuffle(active.begin(), active.end(), rng);
        int const a = active.back();
        active.pop_back();
        int const b = active.back();
        active.pop_back();
        merges.push_back({a, b});
        active.push_back(next++);
    }
    return make_tree(K, merges);
}

double P_at(const double* P, int x, int y) {
    return x >= y ? P[hmm_kernel::tri_offset(x) + y] : P[hmm_kernel::tri_offset(y) + x];
}

// The straightforward per-branch sums over the node's leaf sets.
void straightforward_branch(tree_node const& node, const double* P, double& both, double& one) {
    both = one = 0.0;
    for (int l1 : node.leaves_below) {
        for (int l2 : node.leaves_below)
            if (l2 >= l1) both += 2.0 * P_at(P, l1, l2);
        both -= P_at(P, l1, l1);
        for (int l3 : node.leaves_outside) one += 2.0 * P_at(P, l1, l3);
    }
}

// Random normalised pair posterior.
std::vector<double> random_posterior(int K, std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> P(hmm_kernel::tri_size(K));
    for (double& x : P) x = u(rng) * u(rng);
    double const t = hmm_kernel::tri_total(K, P.data());
    for (double& x : P) x /= t;
    return P;
}

// ---- Lean pipeline helpers -----------------------------------------------------

// Every individual's posterior at every position, from the full-storage passes.
std::vector<std::vector<double>> full_storage_posteriors(HMM& h, std::vector<hmm_kernel::Flank> const& flanks) {
    auto const v = snp_list(h);
    std::vector<std::vector<double>> out;
    for (int n = 0; n < h.n_individuals; ++n) {
        h.forward(n);
        h.backward(n);
        for (auto const& f : flanks) {
            std::vector<double> P;
            h.find_matrix_private(P, f.rate, f.left_distance, f.right_distance, v[f.right]->backward_probs,
                                  v[f.left]->forward_probs);
            out.push_back(P);
        }
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
            auto sink = [&](int p, const double* values) {
                out[n * P + p].assign(values, values + hmm_kernel::tri_size(panel.K));
            };
            ws.run(panel, schedule, panel.genotypes_of(n), sink);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) pool.emplace_back(work, t);
    for (auto& t : pool) t.join();
    return out;
}

bool bit_identical(std::vector<double> const& a, std::vector<double> const& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

}  // namespace

// ---- Tests -------------------------------------------------------------------------

TEST(HmmBruteForce, PassesAndPosteriorsMatchOrderedPairModel) {
    for (int K = 1; K <= 4; ++K) {
        for (unsigned seed = 1; seed <= 4; ++seed) {
            PanelSpec spec;
            spec.K = K;
            spec.L = 5;
            spec.N = 3;
            spec.theta = K == 1 ? 0.3 : 0.2 + 0.3 * seed;
            HMM h = make_hmm(spec, 100 * K + seed);
            auto const v = snp_list(h);
            auto const flanks = find_position_flanks(h, test_positions(h));
            std::vector<double> P;
            for (int n = 0; n < spec.N; ++n) {
                h.forward(n);
                h.backward(n);
                Brute const b = brute_force(h, n);
                for (int s = 0; s < spec.L; ++s) {
                    auto const fa = normalised(b.alpha[s]), fk = normalised(full_from_flat(K, v[s]->forward_probs.data()));
                    auto const ba = normalised(b.beta[s]), bk = normalised(full_from_flat(K, v[s]->backward_probs.data()));
                    for (int x = 0; x < K * K; ++x) {
                        ASSERT_TRUE(close_rel(fa[x], fk[x])) << "forward K=" << K << " snp " << s;
                        ASSERT_TRUE(close_rel(ba[x], bk[x])) << "backward K=" << K << " snp " << s;
                    }
                }
                for (auto const& f : flanks) {
                    h.find_matrix_private(P, f.rate, f.left_distance, f.right_distance, v[f.right]->backward_probs,
                                          v[f.left]->forward_probs);
                    auto const expected = brute_posterior(h, b, f);
                    auto const got = full_from_flat(K, P.data());
                    for (int x = 0; x < K * K; ++x)
                        ASSERT_TRUE(close_rel(expected[x], got[x])) << "posterior K=" << K << " at " << f.left;
                    // Per-haplotype probabilities.
                    std::vector<double> m(K);
                    hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
                    for (int k = 0; k < K; ++k) {
                        double e = 0.0;
                        for (int l = 0; l < K; ++l) e += expected[k * K + l];
                        EXPECT_TRUE(close_rel(e, m[k])) << "m K=" << K;
                    }
                }
            }
        }
    }
}

TEST(HmmBruteForce, BranchProbabilitiesMatchLeafSetSums) {
    std::mt19937_64 rng(7);
    for (int K = 2; K <= 4; ++K) {
        PanelSpec spec;
        spec.K = K;
        spec.L = 4;
        spec.N = 2;
        HMM h = make_hmm(spec, 900 + K);
        auto const v = snp_list(h);
        auto const flanks = find_position_flanks(h, test_positions(h));
        tree_nodes const tree = random_tree(K, rng);
        hmm_kernel::BranchLayout const layout = make_branch_layout(tree, K);
        int const nodes = layout.n_nodes();
        std::vector<double> P, m(K), both(nodes), one(nodes), work(2 * nodes);
        for (int n = 0; n < spec.N; ++n) {
            h.forward(n);
            h.backward(n);
            Brute const b = brute_force(h, n);
            for (auto const& f : flanks) {
                h.find_matrix_private(P, f.rate, f.left_distance, f.right_distance, v[f.right]->backward_probs,
                                      v[f.left]->forward_probs);
                hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
                hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), work.data());
                auto const bp = brute_posterior(h, b, f);
                for (auto const& [id, node] : tree) {
                    double eb = 0.0, eo = 0.0;
                    for (int x = 0; x < K; ++x)
                        for (int y = 0; y < K; ++y) {
                            bool const bx = node.leaves_below.count(x), by = node.leaves_below.count(y);
                            if (bx && by) eb += bp[x * K + y];
                            if (bx && !by) eo += 2.0 * bp[x * K + y];
                        }
                    EXPECT_NEAR(eb, both[id], 1e-12) << "node " << id;
                    EXPECT_NEAR(eo, one[id], 1e-12) << "node " << id;
                }
            }
        }
    }
}

TEST(HmmReference, KernelMatchesPlainRecursionsIncludingRescaling) {
    int total_forward_rescales = 0, total_backward_rescales = 0;
    for (int K : {1, 2, 5, 9, 17, 30}) {
        for (bool runs : {false, true}) {
            PanelSpec spec;
            spec.K = K;
            spec.L = 24;
            spec.N = 2;
            spec.theta = runs ? 1e-28 : 0.7;
            spec.mismatch_runs = runs;
            HMM h = make_hmm(spec, 31 * K + runs);
            auto const v = snp_list(h);
            auto const flanks = find_position_flanks(h, test_positions(h));
            std::vector<double> P;
            for (int n = 0; n < spec.N; ++n) {
                h.forward(n);
                h.backward(n);
                Reference const r = reference(h, n);
                total_forward_rescales += r.forward_rescales;
                total_backward_rescales += r.backward_rescales;
                for (int s = 0; s < spec.L; ++s)
                    for (int i = 0; i < K; ++i)
                        for (int j = 0; j <= i; ++j) {
                            std::size_t const o = hmm_kernel::tri_offset(i) + j;
                            ASSERT_TRUE(close_rel(r.F[s][i][j], v[s]->forward_probs[o]))
                                << "forward K=" << K << " snp " << s << " " << r.F[s][i][j] << " "
                                << v[s]->forward_probs[o];
                            ASSERT_TRUE(close_rel(r.B[s][i][j], v[s]->backward_probs[o]))
                                << "backward K=" << K << " snp " << s << " " << r.B[s][i][j] << " "
                                << v[s]->backward_probs[o];
                        }
                for (auto const& f : flanks) {
                    h.find_matrix_private(P, f.rate, f.left_distance, f.right_distance, v[f.right]->backward_probs,
                                          v[f.left]->forward_probs);
                    Tri const e = reference_posterior(K, f, r.F[f.left], r.B[f.right]);
                    for (int i = 0; i < K; ++i)
                        for (int j = 0; j <= i; ++j)
                            ASSERT_TRUE(close_rel(e[i][j], P[hmm_kernel::tri_offset(i) + j])) << "posterior K=" << K;
                }
            }
        }
    }
    // The mismatch runs must actually have exercised both rescalings.
    EXPECT_GT(total_forward_rescales, 0);
    EXPECT_GT(total_backward_rescales, 0);
}

TEST(HmmReference, SingleSnpHoldsPriorTimesEmissionAndOnes) {
    PanelSpec spec;
    spec.K = 4;
    spec.L = 1;
    spec.N = 2;
    HMM h = make_hmm(spec, 5);
    snp const& s = h.snps.begin()->second;
    for (int n = 0; n < spec.N; ++n) {
        h.forward(n);
        h.backward(n);
        for (int i = 0; i < spec.K; ++i)
            for (int j = 0; j <= i; ++j) {
                std::size_t const o = hmm_kernel::tri_offset(i) + j;
                EXPECT_EQ(emission(h, s, i, j, n) / 16.0, s.forward_probs[o]);
                EXPECT_EQ(1.0, s.backward_probs[o]);
            }
    }
}

TEST(HmmLeanPipeline, BitIdenticalToFullStorageWithRescaling) {
    for (int K : {1, 3, 12, 21}) {
        for (bool runs : {false, true}) {
            PanelSpec spec;
            spec.K = K;
            spec.L = 30;
            spec.N = 3;
            spec.theta = runs ? 1e-28 : 0.4;
            spec.mismatch_runs = runs;
            HMM h = make_hmm(spec, 77 * K + runs);
            auto const flanks = find_position_flanks(h, test_positions(h));
            auto const lean = lean_posteriors(h, flanks, 1);
            auto const full = full_storage_posteriors(h, flanks);
            ASSERT_EQ(full.size(), lean.size());
            for (std::size_t k = 0; k < full.size(); ++k)
                ASSERT_TRUE(bit_identical(full[k], lean[k])) << "K=" << K << " runs=" << runs << " entry " << k;
        }
    }
}

TEST(HmmReference, MismatchRunsRescaleBothPassesRepeatedly) {
    // The panels the bit-for-bit tests use must really rescale, many times.
    PanelSpec spec;
    spec.K = 6;
    spec.L = 30;
    spec.N = 1;
    spec.theta = 1e-28;
    spec.mismatch_runs = true;
    HMM h = make_hmm(spec, 3);
    Reference const r = reference(h, 0);
    EXPECT_GT(r.forward_rescales, 2);
    EXPECT_GT(r.backward_rescales, 2);
}

TEST(HmmLeanPipeline, TwoThreadsGiveTheSameBits) {
    PanelSpec spec;
    spec.K = 16;
    spec.L = 40;
    spec.N = 7;
    spec.theta = 1e-28;
    spec.mismatch_runs = true;
    HMM h = make_hmm(spec, 11);
    auto const flanks = find_position_flanks(h, test_positions(h));
    auto const one = lean_posteriors(h, flanks, 1);
    auto const two = lean_posteriors(h, flanks, 2);
    ASSERT_EQ(one.size(), two.size());
    for (std::size_t k = 0; k < one.size(); ++k) ASSERT_TRUE(bit_identical(one[k], two[k])) << "entry " << k;
}

TEST(HmmLeanPipeline, WorkspaceReusedAcrossPanelsAndIndividuals) {
    // A workspace first used on a larger panel, then a smaller one, then the
    // larger again, gives the results of a fresh one.
    PanelSpec big, small;
    big.K = 10;
    big.L = 15;
    small.K = 4;
    small.L = 9;
    HMM hb = make_hmm(big, 1), hs = make_hmm(small, 2);
    auto const fb = find_position_flanks(hb, test_positions(hb));
    auto const fs = find_position_flanks(hs, test_positions(hs));
    auto const pb = make_panel(hb), ps = make_panel(hs);
    hmm_kernel::Schedule const sb(pb.L, fb), ss(ps.L, fs);
    hmm_kernel::Workspace shared;
    std::vector<std::vector<double>> got(fb.size()), fresh(fb.size());
    auto collect = [](std::vector<std::vector<double>>& into, int K) {
        return [&into, K](int p, const double* P) { into[p].assign(P, P + hmm_kernel::tri_size(K)); };
    };
    auto ignore = [](int, const double*) {};
    shared.run(pb, sb, pb.genotypes_of(0), ignore);
    shared.run(ps, ss, ps.genotypes_of(1), ignore);
    auto c1 = collect(got, big.K);
    shared.run(pb, sb, pb.genotypes_of(2), c1);
    hmm_kernel::Workspace clean;
    auto c2 = collect(fresh, big.K);
    clean.run(pb, sb, pb.genotypes_of(2), c2);
    for (std::size_t p = 0; p < fb.size(); ++p) EXPECT_TRUE(bit_identical(got[p], fresh[p])) << p;
}

TEST(HmmPosterior, PositionAtSnpUsesNoPropagation) {
    PanelSpec spec;
    spec.K = 5;
    spec.L = 6;
    HMM h = make_hmm(spec, 21);
    h.forward(1);
    h.backward(1);
    snp const& s = std::next(h.snps.begin(), 3)->second;
    std::vector<double> at_snp, huge_rate;
    h.find_matrix_private(at_snp, 0.01, 0.0, 0.0, s.backward_probs, s.forward_probs);
    h.find_matrix_private(huge_rate, 1e9, 0.0, 0.0, s.backward_probs, s.forward_probs);
    EXPECT_TRUE(bit_identical(at_snp, huge_rate));
    double total = 0.0;
    for (int i = 0; i < spec.K; ++i)
        for (int j = 0; j <= i; ++j) {
            std::size_t const o = hmm_kernel::tri_offset(i) + j;
            total += (i == j ? 1.0 : 2.0) * s.forward_probs[o] * s.backward_probs[o];
        }
    for (int i = 0; i < spec.K; ++i)
        for (int j = 0; j <= i; ++j) {
            std::size_t const o = hmm_kernel::tri_offset(i) + j;
            EXPECT_TRUE(close_rel(s.forward_probs[o] * s.backward_probs[o] / total, at_snp[o], 1e-14));
        }
    // With distances, the position moves away from the SNP's own product.
    std::vector<double> between;
    h.find_matrix_private(between, 0.01, 50.0, 50.0, s.backward_probs, s.forward_probs);
    EXPECT_FALSE(bit_identical(at_snp, between));
}

TEST(HmmPosterior, ProbabilitiesAreNormalisedAndBranchesInRange) {
    std::mt19937_64 rng(99);
    for (bool runs : {false, true}) {
        PanelSpec spec;
        spec.K = 13;
        spec.L = 20;
        spec.N = 4;
        spec.theta = runs ? 1e-28 : 0.5;
        spec.mismatch_runs = runs;
        HMM h = make_hmm(spec, 8 + runs);
        tree_nodes const tree = random_tree(spec.K, rng);
        auto const layout = make_branch_layout(tree, spec.K);
        auto const panel = make_panel(h);
        hmm_kernel::Schedule const schedule(panel.L, find_position_flanks(h, test_positions(h)));
        hmm_kernel::Workspace ws;
        std::vector<double> m(spec.K), both(layout.n_nodes()), one(layout.n_nodes()), work(2 * layout.n_nodes());
        int checked = 0;
        auto check = [&](int, const double* P) {
            double const sum = hmm_kernel::haplotype_probabilities(spec.K, P, m.data());
            double msum = 0.0;
            for (double x : m) msum += x;
            EXPECT_NEAR(1.0, sum, 1e-12);
            EXPECT_NEAR(1.0, msum, 1e-12);
            hmm_kernel::branch_probabilities(layout, P, m.data(), both.data(), one.data(), work.data());
            for (int v = 0; v < layout.n_nodes(); ++v) {
                double const none = 1.0 - both[v] - one[v];
                for (double x : {both[v], one[v], none}) {
                    EXPECT_GE(x, -1e-12);
                    EXPECT_LE(x, 1.0 + 1e-12);
                }
            }
            // The root holds every leaf: both copies below it.
            EXPECT_NEAR(1.0, both[layout.n_nodes() - 1], 1e-12);
            ++checked;
        };
        for (int n = 0; n < spec.N; ++n) ws.run(panel, schedule, panel.genotypes_of(n), check);
        EXPECT_EQ(static_cast<int>(schedule.flanks.size()) * spec.N, checked);
    }
}

TEST(HmmBranches, FastSumsMatchStraightforwardOnBalancedChainAndRandomTrees) {
    std::mt19937_64 rng(4);
    std::vector<std::pair<int, tree_nodes>> trees = {
        {4, make_tree(4, {{0, 1}, {2, 3}, {4, 5}})},
        {5, make_tree(5, {{0, 1}, {5, 2}, {6, 3}, {7, 4}})},  // chain
        {5, make_tree(5, {{4, 3}, {2, 5}, {1, 6}, {7, 0}})},  // chain, leaves in reverse
        {1, make_tree(1, {})},
        {2, make_tree(2, {{1, 0}})},
    };
    for (int K : {6, 9, 33, 64}) trees.push_back({K, random_tree(K, rng)});
    for (auto const& [K, tree] : trees) {
        auto const layout = make_branch_layout(tree, K);
        ASSERT_EQ(static_cast<int>(tree.size()), layout.n_nodes());
        std::vector<double> const P = random_posterior(K, rng);
        std::vector<double> m(K), both(layout.n_nodes()), one(layout.n_nodes()), work(2 * layout.n_nodes());
        hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), work.data());
        for (auto const& [id, node] : tree) {
            double eb, eo;
            straightforward_branch(node, P.data(), eb, eo);
            EXPECT_NEAR(eb, both[id], 1e-12) << "K=" << K << " node " << id;
            EXPECT_NEAR(eo, one[id], 1e-12) << "K=" << K << " node " << id;
        }
        // A leaf's branch: both = P(l, l), one = 2 * sum over the others.
        for (int l = 0; l < K; ++l) {
            double others = 0.0;
            for (int j = 0; j < K; ++j)
                if (j != l) others += P_at(P.data(), l, j);
            EXPECT_EQ(P_at(P.data(), l, l), both[l]);
            EXPECT_NEAR(2.0 * others, one[l], 1e-12);
        }
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
    std::vector<double> const pos = {100.0, 200.0, 350.0};
    std::vector<double> const rate = {0.0, 0.5, 0.25};
    auto const f = hmm_kernel::find_flanks(pos, rate, {100.0, 150.0, 200.0, 349.5, 350.0});
    ASSERT_EQ(5u, f.size());
    EXPECT_EQ(0, f[0].left);
    EXPECT_EQ(0, f[0].right);
    EXPECT_EQ(0.0, f[0].left_distance);
    EXPECT_EQ(0.0, f[0].right_distance);
    EXPECT_EQ(0, f[1].left);
    EXPECT_EQ(1, f[1].right);
    EXPECT_EQ(50.0, f[1].left_distance);
    EXPECT_EQ(50.0, f[1].right_distance);
    EXPECT_EQ(0.5, f[1].rate);
    EXPECT_EQ(1, f[2].left);
    EXPECT_EQ(1, f[2].right);
    EXPECT_EQ(0.0, f[2].right_distance);
    EXPECT_EQ(1, f[3].left);
    EXPECT_EQ(2, f[3].right);
    EXPECT_EQ(149.5, f[3].left_distance);
    EXPECT_EQ(0.5, f[3].right_distance);
    EXPECT_EQ(0.25, f[3].rate);
    EXPECT_EQ(2, f[4].left);
    EXPECT_EQ(2, f[4].right);
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {99.0}), std::out_of_range);
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {350.5}), std::out_of_range);

    // From the store: SNP positions and their rates per base.
    PanelSpec spec;
    HMM h = make_hmm(spec, 1);
    auto const at = snp_positions(h);
    auto const g = find_position_flanks(h, {at[2] + 1.0});
    EXPECT_EQ(2, g[0].left);
    EXPECT_EQ(3, g[0].right);
    EXPECT_EQ(std::next(h.snps.begin(), 3)->second.rate_per_base, g[0].rate);
}
