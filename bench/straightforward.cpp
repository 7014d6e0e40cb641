#include "straightforward.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>
#include <vector>

namespace {

using rows = std::vector<std::vector<double>>;

double pair_sums(rows const& T, std::vector<double>& R) {
    int const K = static_cast<int>(T.size());
    R.assign(K, 0.0);
    double total = 0;
    for (int i = 0; i < K; ++i)
        for (int j = 0; j <= i; ++j) {
            R[i] += T[i][j];
            if (j != i) R[j] += T[i][j], total += 2 * T[i][j];
            else total += T[i][j];
        }
    return total;
}

void transition(rows const& X, std::vector<double> const& R, double total, double stay, double jump, rows& out) {
    double const a = stay - jump, b = jump;
    for (std::size_t i = 0; i < X.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j) out[i][j] = ((R[i] + R[j]) * a * b + b * b * total) + a * a * X[i][j];
}

}  // namespace

double straightforward_seconds_per_individual(HMM const& hmm, std::map<double, std::string> const& trees,
                                              int individuals) {
    int const K = hmm.n_haplotypes;
    std::vector<snp const*> snps;
    std::vector<double> where;
    for (auto const& e : hmm.snps) snps.push_back(&e.second), where.push_back(e.first);
    int const L = static_cast<int>(snps.size());
    rows const shape = [&] {
        rows r(K);
        for (int i = 0; i < K; ++i) r[i].assign(i + 1, 0.0);
        return r;
    }();
    std::vector<rows> F(L, shape), B(L, shape);
    std::vector<std::pair<double, tree_nodes>> parsed;
    for (auto const& t : trees)
        if (t.first >= where.front() && t.first <= where.back()) {
            parsed.emplace_back(t.first, tree_nodes());
            parse_tree(t.second, parsed.back().second, K);
        }
    auto const E = hmm.mutation_matrix;
    std::vector<double> R, m(K);
    rows P = shape, Ft = shape, Bt = shape;
    std::ostringstream text;
    auto const start = std::chrono::steady_clock::now();
    for (int n = 0; n < individuals; ++n) {
        for (int s = 0; s < L; ++s) {  // forward
            auto const& h = snps[s]->haplotype_alleles;
            int const g = snps[s]->genotypes[n];
            if (s == 0) {
                for (int i = 0; i < K; ++i)
                    for (int j = 0; j <= i; ++j) F[0][i][j] = E[h[i] + h[j]][g] / (K * K);
                continue;
            }
            double const total = pair_sums(F[s - 1], R);
            transition(F[s - 1], R, total, snps[s]->switch_rates[0], snps[s]->switch_rates[1], F[s]);
            for (int i = 0; i < K; ++i)
                for (int j = 0; j <= i; ++j) F[s][i][j] *= E[h[i] + h[j]][g];
        }
        for (auto& row : B[L - 1]) std::fill(row.begin(), row.end(), 1.0);
        for (int s = L - 2; s >= 0; --s) {  // backward
            auto const& h = snps[s + 1]->haplotype_alleles;
            int const g = snps[s + 1]->genotypes[n];
            rows gamma = B[s + 1];
            for (int i = 0; i < K; ++i)
                for (int j = 0; j <= i; ++j) gamma[i][j] *= E[h[i] + h[j]][g];
            double const total = pair_sums(gamma, R);
            transition(gamma, R, total, snps[s + 1]->switch_rates[0], snps[s + 1]->switch_rates[1], B[s]);
        }
        for (auto& [t, nodes] : parsed) {  // positions
            int const r = static_cast<int>(std::lower_bound(where.begin(), where.end(), t) - where.begin());
            int const l = where[r] == t ? r : r - 1;
            double const rate = snps[r]->rate_per_base;
            auto carry = [&](rows const& X, double d, rows& out) {
                if (d == 0) return void(out = X);
                double const e = std::exp(-rate * d / K), jump = (1 - e) / K;
                double const total = pair_sums(X, R);
                transition(X, R, total, e + jump, jump, out);
            };
            carry(F[l], l == r ? 0 : t - where[l], Ft);
            carry(B[r], l == r ? 0 : where[r] - t, Bt);
            double S = 0;
            for (int i = 0; i < K; ++i)
                for (int j = 0; j <= i; ++j) P[i][j] = Ft[i][j] * Bt[i][j], S += (i == j ? 1 : 2) * P[i][j];
            for (auto& row : P)
                for (double& v : row) v /= S;
            std::fill(m.begin(), m.end(), 0.0);
            for (int i = 0; i < K; ++i)
                for (int j = 0; j <= i; ++j) m[j] += P[i][j], m[i] += i == j ? 0 : P[i][j];
            for (auto const& [id, node] : nodes) {
                if (node.branch_length <= 0) continue;
                double both = 0, one = 0;
                for (int l1 : node.leaves_below) {
                    for (auto it = node.leaves_below.find(l1); it != node.leaves_below.end(); ++it)
                        both += 2 * P[std::max(l1, *it)][std::min(l1, *it)];
                    both -= P[l1][l1];
                    for (int l3 : node.leaves_outside) one += 2 * P[std::max(l1, l3)][std::min(l1, l3)];
                }
                text << both << " " << one << " " << 1 - both - one << " ";
            }
            text.str("");
        }
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / individuals;
}
