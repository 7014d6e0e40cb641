// The per-individual engine against a brute-force ordered-pair model with an
// explicit K^2 x K^2 transition matrix, over a table of panel shapes, each run
// on one or more threads (more threads must give the same bits as one).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "hmm/hmm.h"
#include "hmm/kernel.h"
#include "trees/tree.h"

namespace {

using Vec = std::vector<double>;
using Mat = std::vector<Vec>;
using hmm_kernel::tri_offset;

struct Shape {
    int K, L, N;
    double theta;
    // Runs of SNPs where every haplotype carries allele 0 and every individual
    // two copies of allele 1: the totals underflow and both passes rescale.
    bool mismatch_runs;
    int threads;
};

HMM make_hmm(Shape const& shape, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    HMM h;
    h.n_haplotypes = shape.K;
    h.n_individuals = shape.N;
    double const e = 0.5 * shape.theta / (shape.theta + shape.K), s = 1.0 - e;
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

// Positions at the first and last SNP, at inner SNPs, and between SNPs, several sharing flanks.
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

// Pair transition T((i,j) -> (k,l)) = t(i->k) t(j->l) over ordered pairs x = i K + j,
// with t(i->k) = (stay - jump) [i = k] + jump. The term where both copies jump
// is weighted by w: the step after a forward rescaling carries the previous
// total undivided, which leaves that term at w = the total.
Mat pair_transition(int K, double stay, double jump, double w = 1.0) {
    Mat T(K * K, Vec(K * K));
    for (int x = 0; x < K * K; ++x)
        for (int y = 0; y < K * K; ++y)
            T[x][y] = (x / K == y / K ? stay : jump) * (x % K == y % K ? stay : jump) - jump * jump * (1.0 - w);
    return T;
}

Vec apply(Mat const& T, Vec const& v, bool forward) {
    Vec out(v.size(), 0.0);
    for (std::size_t x = 0; x < v.size(); ++x)
        for (std::size_t y = 0; y < v.size(); ++y) (forward ? out[y] : out[x]) += T[x][y] * v[forward ? x : y];
    return out;
}

// Scales v to sum 1 and returns the sum.
double normalise(Vec& v) {
    double t = 0.0;
    for (double x : v) t += x;
    for (double& x : v) x /= t;
    return t;
}

struct Brute {
    Mat alpha, beta;  // per SNP, normalised
    int forward_rescales = 0, backward_rescales = 0;  // where the engine's totals fall below its limit
};

Brute brute_force(HMM const& h, int n) {
    int const K = h.n_haplotypes;
    std::vector<snp const*> v;
    for (auto const& e : h.snps) v.push_back(&e.second);
    int const L = static_cast<int>(v.size());
    auto E = [&](int s, int x) {
        return h.mutation_matrix[v[s]->haplotype_alleles[x / K] + v[s]->haplotype_alleles[x % K]][v[s]->genotypes[n]];
    };
    Brute b{Mat(L, Vec(K * K)), Mat(L, Vec(K * K, 1.0))};
    double scale = 1.0, w = 1.0;
    for (int s = 0; s < L; ++s) {
        if (s == 0) b.alpha[0] = Vec(K * K, 1.0 / (K * K));
        else b.alpha[s] = apply(pair_transition(K, v[s]->switch_rates[0], v[s]->switch_rates[1], w), b.alpha[s - 1], true);
        for (int x = 0; x < K * K; ++x) b.alpha[s][x] *= E(s, x);
        scale *= normalise(b.alpha[s]);
        w = 1.0;
        if (s > 0 && scale < hmm_kernel::underflow_limit) ++b.forward_rescales, w = scale, scale = 1.0;
    }
    scale = 1.0;
    for (int s = L - 2; s >= 0; --s) {
        Vec weighted = b.beta[s + 1];
        for (int x = 0; x < K * K; ++x) weighted[x] *= E(s + 1, x);
        if ((scale *= normalise(weighted)) < hmm_kernel::underflow_limit) ++b.backward_rescales, scale = 1.0;
        b.beta[s] = apply(pair_transition(K, v[s + 1]->switch_rates[0], v[s + 1]->switch_rates[1]), weighted, false);
    }
    return b;
}

Vec brute_posterior(int K, Brute const& b, hmm_kernel::Flank const& f) {
    Vec a = b.alpha[f.left], c = b.beta[f.right], p(K * K);
    if (f.left_distance != 0.0 && f.right_distance != 0.0) {
        auto carry = [&](double d) {
            double const e = std::exp(-f.rate * d / K), jump = (1.0 - e) / K;
            return pair_transition(K, e + jump, jump);
        };
        a = apply(carry(f.left_distance), a, true);
        c = apply(carry(f.right_distance), c, false);
    }
    for (int x = 0; x < K * K; ++x) p[x] = a[x] * c[x];
    normalise(p);
    return p;
}

double P_at(const double* P, int x, int y) { return x >= y ? P[tri_offset(x) + y] : P[tri_offset(y) + x]; }

// Every individual's posterior at every flank, individuals dealt out over threads.
Mat engine_posteriors(HMM const& h, std::vector<hmm_kernel::Flank> const& flanks, int threads) {
    hmm_kernel::Panel const panel = make_panel(h);
    hmm_kernel::Schedule const schedule(panel.L, flanks);
    std::size_t const P = flanks.size();
    Mat out(panel.N * P);
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

// A random full binary tree over K leaves, built by the tree parser from its text.
tree_nodes random_tree(int K, std::mt19937_64& rng) {
    std::vector<int> active;  // 1-based node ids as the text names them
    for (int l = 1; l <= K; ++l) active.push_back(l);
    std::string text = "1 0;" + std::to_string(K) + ";";
    for (int id = K + 1; active.size() > 1; ++id) {
        std::shuffle(active.begin(), active.end(), rng);
        text += std::to_string(active.back()) + " " + std::to_string(active[active.size() - 2]) + ",";
        active.resize(active.size() - 2);
        active.push_back(id);
    }
    text.back() = ';';
    tree_nodes t;
    parse_tree(text, t, K);
    return t;
}

}  // namespace

TEST(Engine, MatchesBruteForceOverShapesAndThreads) {
    std::vector<Shape> const shapes = {
        {1, 5, 3, 0.3, false, 1},   {2, 5, 3, 0.5, false, 2},  {3, 6, 4, 0.8, false, 1},
        {4, 5, 3, 1.1, false, 3},   {5, 24, 2, 1e-28, true, 1}, {9, 31, 3, 1e-60, true, 2},
        {12, 16, 5, 0.4, false, 4}, {17, 22, 2, 1e-28, true, 1},
    };
    std::mt19937_64 rng(7);
    for (Shape const& shape : shapes) {
        int const K = shape.K;
        SCOPED_TRACE("K=" + std::to_string(K) + " L=" + std::to_string(shape.L) + " threads=" +
                     std::to_string(shape.threads));
        HMM const h = make_hmm(shape, 100 * K + shape.L);
        auto const flanks = test_flanks(h);
        Mat const got = engine_posteriors(h, flanks, shape.threads);
        if (shape.threads > 1) {
            EXPECT_TRUE(got == engine_posteriors(h, flanks, 1)) << "threads change the bits";
        }
        tree_nodes const tree = random_tree(K, rng);
        auto const layout = make_branch_layout(tree, K);
        int rescales[2] = {0, 0};
        for (int n = 0; n < shape.N; ++n) {
            Brute const b = brute_force(h, n);
            rescales[0] += b.forward_rescales;
            rescales[1] += b.backward_rescales;
            for (std::size_t p = 0; p < flanks.size(); ++p) {
                Vec const expected = brute_posterior(K, b, flanks[p]);
                const double* P = got[n * flanks.size() + p].data();
                for (int x = 0; x < K * K; ++x)
                    ASSERT_NEAR(P_at(P, x / K, x % K), expected[x], 1e-9 * expected[x] + 1e-300) << "flank " << p;
                // Copy probabilities and per-branch sums: both copies below a node, or exactly one.
                Vec m(K), both(layout.n_nodes()), one(layout.n_nodes()), work(2 * layout.n_nodes());
                hmm_kernel::haplotype_probabilities(K, P, m.data());
                hmm_kernel::branch_probabilities(layout, P, m.data(), both.data(), one.data(), work.data());
                for (auto const& [id, node] : tree) {
                    double eb = 0.0, eo = 0.0;
                    for (int x = 0; x < K * K; ++x) {  // a leaf's sums add up to its copy probability m
                        bool const bx = node.leaves_below.count(x / K), by = node.leaves_below.count(x % K);
                        eb += bx && by ? expected[x] : 0.0;
                        eo += bx && !by ? 2.0 * expected[x] : 0.0;
                    }
                    EXPECT_NEAR(both[id], eb, 1e-9) << "node " << id;
                    EXPECT_NEAR(one[id], eo, 1e-9) << "node " << id;
                }
            }
        }
        if (shape.mismatch_runs) {
            EXPECT_TRUE(rescales[0] > 0 && rescales[1] > 0) << "no rescaling exercised";
        }
    }
}

TEST(Engine, FirstForwardArrayIsTheUniformPriorTimesTheEmission) {
    double const h[3] = {0.0, 1.0, 1.0}, ecol[3] = {0.5, 0.25, 0.125};
    Vec F(hmm_kernel::tri_size(3)), R(3);
    double const total = hmm_kernel::forward_first(3, h, ecol, F.data(), R.data());
    Vec const expected = {0.5 / 9, 0.25 / 9, 0.125 / 9, 0.25 / 9, 0.125 / 9, 0.125 / 9};
    EXPECT_EQ(F, expected);
    EXPECT_DOUBLE_EQ(total, (0.5 + 4 * 0.25 + 4 * 0.125) / 9);
}

TEST(Engine, FlanksOfPositions) {
    Vec const pos = {100.0, 200.0, 350.0}, rate = {0.0, 0.5, 0.25};
    struct Row { double t; int left, right; double dl, dr, rate; };
    for (Row const& r : std::vector<Row>{{100.0, 0, 0, 0.0, 0.0, 0.0}, {150.0, 0, 1, 50.0, 50.0, 0.5},
                                         {200.0, 1, 1, 0.0, 0.0, 0.5}, {349.5, 1, 2, 149.5, 0.5, 0.25},
                                         {350.0, 2, 2, 0.0, 0.0, 0.25}}) {
        auto const f = hmm_kernel::find_flanks(pos, rate, {r.t}).at(0);
        EXPECT_EQ(std::vector<double>({double(f.left), double(f.right), f.left_distance, f.right_distance, f.rate}),
                  std::vector<double>({double(r.left), double(r.right), r.dl, r.dr, r.rate})) << r.t;
    }
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {99.0}), std::out_of_range);
    EXPECT_THROW(hmm_kernel::find_flanks(pos, rate, {350.5}), std::out_of_range);
    // A position with either distance 0 is taken as lying on its flank SNP: no carrying.
    Vec const F = {0.1, 0.2, 0.3, 0.05, 0.15, 0.2}, B = {0.3, 0.1, 0.2, 0.4, 0.25, 0.05};
    auto at = [&](double dl, double dr) {
        Vec P(6), scratch(6);
        hmm_kernel::posterior(3, 0.01, dl, dr, F.data(), B.data(), P.data(), scratch.data());
        return P;
    };
    EXPECT_EQ(at(50.0, 0.0), at(0.0, 0.0));
    EXPECT_EQ(at(0.0, 50.0), at(0.0, 0.0));
    EXPECT_NE(at(50.0, 50.0), at(0.0, 0.0));
    // Tables that are not trees: a self-merge, a child with a later id, a leaf with children.
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 0}, {-1, -1, -1, 0}), std::invalid_argument);
    EXPECT_THROW(hmm_kernel::BranchLayout(3, {-1, -1, -1, 4}, {-1, -1, -1, 1}), std::invalid_argument);
    EXPECT_THROW(hmm_kernel::BranchLayout(2, {-1, 0}, {-1, -1}), std::invalid_argument);
}
