// Branch sums: per tree, the layout of its merges over the leaves; per
// individual, for every node the probability that both, one or none of the
// two copies descend from it, from the pair posterior.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "engine/kernel.h"
#include "engine/kernel_vectors.h"

namespace hmm_kernel {

// ---- Branch sums -----------------------------------------------------------

BranchLayout::BranchLayout(int K_, std::vector<int> a, std::vector<int> b)
    : K(K_), child_a(std::move(a)), child_b(std::move(b)) {
    int const n = static_cast<int>(child_a.size());
    if (K < 0 || n < K || static_cast<int>(child_b.size()) != n)
        throw std::invalid_argument("tree layout: node table does not cover the leaves");
    parent.assign(n, -1);
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
    rank.assign(K, 0);
    for (int p = 0; p < K; ++p) rank[order[p]] = p;
    row_start.assign(n, 0);
    std::size_t used = 0;
    for (int v = K; v < n; ++v) {
        row_start[v] = used;
        used += static_cast<std::size_t>(hi[child_b[v]] - lo[child_b[v]]);
    }
}

void BranchLayout::index_pairs() {
    pair_index.assign(tri_size(K), 0);
    for (int p = 0; p < K; ++p) {
        for (int q = 0; q <= p; ++q) {
            int const x = order[p], y = order[q];
            pair_index[tri_offset(p) + q] = static_cast<std::uint32_t>(x > y ? tri_offset(x) + y : tri_offset(y) + x);
        }
    }
}

std::size_t pair_index_bytes(int K, std::size_t positions) {
    std::size_t const bytes = positions * tri_size(K) * sizeof(std::uint32_t);
    return branch_sums_read_copy(K) && bytes <= pair_index_budget ? bytes : 0;
}

namespace {

// Hands each leaf x, in order of id, with the whole of P's row x laid out
// plainly (full[y] = P(x, y) for every y) to use(x, full). Leaves are taken
// eight consecutive ids at a time. For leaf x of the block, P(x, y) lies in
// row x of P for y <= x and in column x otherwise; the columns of the block
// are copied first, one cache line of every later row into a strip, so that
// the rows are built from rows and strip in the caches instead of from P at
// random.
template <class Use>
KETRA_INLINE void for_each_full_row(BranchLayout const& layout, const double* P, std::vector<double>& strip,
                                    Use const& use) {
    int const K = layout.K;
    constexpr int block = 8;
    strip.resize(static_cast<std::size_t>(block + 1) * K);
    double* full = strip.data() + static_cast<std::size_t>(block) * K;
    for (int X = 0; X < K; X += block) {
        int const w = std::min(block, K - X);
        for (int y = X; y < K; ++y) {
            double* to = &strip[static_cast<std::size_t>(y) * block];
            const double* from = P + tri_offset(y) + X;
            // Each row is a new cache line at an irregular stride, which the
            // hardware does not foresee: ask for one some rows ahead.
            if (y + 16 < K) __builtin_prefetch(P + tri_offset(y + 16) + X);
            if (y >= X + block - 1 && w == block) {
                for (int u = 0; u < block; ++u) to[u] = from[u];
            } else {
                int const columns = std::min(w, y - X + 1);  // row y holds columns up to y
                for (int u = 0; u < columns; ++u) to[u] = from[u];
            }
        }
        for (int u = 0; u < w; ++u) {
            // The whole of P's row x, laid out plainly first: choosing between
            // row and strip per element would branch at random.
            int const x = X + u;
            const double* row = P + tri_offset(x);
            for (int y = 0; y <= x; ++y) full[y] = row[y];
            for (int y = x + 1; y < K; ++y) full[y] = strip[static_cast<std::size_t>(y) * block + u];
            use(x, full);
        }
    }
}

// out[k] = P[index[k]] for the K(K+1)/2 entries of the copy; the pointers do
// not alias, so the loop becomes vector gathers. Every tree has its own
// index, far outside the caches by the time the next individual comes to it.
KETRA_INLINE void gather(int K, const std::uint32_t* __restrict index, const double* __restrict P,
                         double* __restrict out) {
    FetchAhead<std::uint32_t> fetch(index, K);
    std::size_t const n = tri_size(K), line = fetch.line;
    std::size_t k = 0;
    for (; k + line <= n; k += line) {
        fetch.until(k);
        for (std::size_t t = k; t < k + line; ++t) out[t] = P[index[t]];
    }
    for (; k < n; ++k) out[k] = P[index[k]];
}

// Q[p][q] = P(order[p], order[q]) for q < p, in the flat triangular layout.
KETRA_INLINE void reorder_pairs(BranchLayout const& layout, const double* P, double* Q, std::vector<double>& strip) {
    const int* order = layout.order.data();
    for_each_full_row(layout, P, strip, [&](int x, const double* full) {
        int const p = layout.rank[x];
        double* out = Q + tri_offset(p);
        for (int q = 0; q < p; ++q) out[q] = full[order[q]];
    });
}

// The row sums the branch sums add up, taken straight from each leaf's full
// row, with no copy of P: for panels whose P is far beyond the caches, where
// writing the copy and reading it back costs more than the sums. Leaf x at
// depth-first place p lies under child b of each merge v above it that it
// reaches through b; there, its row sum over child a's leaves (serial, in
// depth-first order) goes to rows[row_start[v] + p - lo[b]].
KETRA_INLINE void leaf_row_sums(BranchLayout const& layout, const double* P, double* rows, std::vector<double>& strip) {
    const int* order = layout.order.data();
    for_each_full_row(layout, P, strip, [&](int x, const double* full) {
        int const p = layout.rank[x];
        for (int c = x, v = layout.parent[x]; v >= 0; c = v, v = layout.parent[v]) {
            int const b = layout.child_b[v];
            if (b != c) continue;
            int const a = layout.child_a[v];
            double row = 0.0;
            for (int q = layout.lo[a]; q < layout.hi[a]; ++q) row += full[order[q]];
            rows[layout.row_start[v] + (p - layout.lo[b])] = row;
        }
    });
}

// Sum over the pairs with one leaf under each child of merge v, with
// pair(p, q) = P(order[p], order[q]) for q < p; a's leaves come before b's in
// depth-first order. Each row's sum is serial and the rows are added in
// order; four rows run side by side, so the additions overlap without
// changing their order.
template <class Pair>
KETRA_INLINE double cross_sum(BranchLayout const& layout, int v, Pair const& pair) {
    int const a = layout.child_a[v], b = layout.child_b[v];
    double cross = 0.0;
    int const qa = layout.lo[a], qb = layout.hi[a];
    int p = layout.lo[b];
    for (; p + 4 <= layout.hi[b]; p += 4) {
        double r0 = 0.0, r1 = 0.0, r2 = 0.0, r3 = 0.0;
        for (int q = qa; q < qb; ++q) {
            r0 += pair(p, q);
            r1 += pair(p + 1, q);
            r2 += pair(p + 2, q);
            r3 += pair(p + 3, q);
        }
        cross += r0;
        cross += r1;
        cross += r2;
        cross += r3;
    }
    for (; p < layout.hi[b]; ++p) {
        double row = 0.0;
        for (int q = qa; q < qb; ++q) row += pair(p, q);
        cross += row;
    }
    return cross;
}

// The branch sums, with cross_of(v) the sum cross_sum gives for merge v.
template <class Cross>
KETRA_INLINE void branch_sums(BranchLayout const& layout, const double* P, const double* m, double* both, double* one,
                              double* work, Cross const& cross_of) {
    int const n = layout.n_nodes();
    double* W = work;      // ordered-pair sum of P within the node's leaves
    double* S = work + n;  // sum of m over the node's leaves
    for (int v = 0; v < n; ++v) {
        if (v < layout.K) {
            W[v] = P[tri_offset(v) + v];
            S[v] = m[v];
        } else {
            // Pairs with one leaf under each child meet at this node only.
            int const a = layout.child_a[v], b = layout.child_b[v];
            W[v] = (W[a] + W[b]) + 2.0 * cross_of(v);
            S[v] = S[a] + S[b];
        }
        both[v] = W[v];
        one[v] = 2.0 * (S[v] - W[v]);
    }
}

}  // namespace

KETRA_CLONES void branch_probabilities(BranchLayout const& layout, const double* P, const double* m, double* both,
                                       double* one, double* work, double* reordered) {
    int const K = layout.K;
    // The node tables, too, are far outside the caches, and are read in an
    // order the hardware does not foresee (each merge's children).
    for (std::vector<int> const* table : {&layout.child_a, &layout.child_b, &layout.lo, &layout.hi})
        for (std::size_t k = 0; k < table->size(); k += 16) __builtin_prefetch(table->data() + k);
    if (reordered && !branch_sums_read_copy(K)) {
        thread_local std::vector<double> strip;
        leaf_row_sums(layout, P, reordered, strip);
        // The rows of each merge, added in depth-first order as cross_sum does.
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            int const b = layout.child_b[v];
            const double* rows = reordered + layout.row_start[v];
            double cross = 0.0;
            for (int t = 0; t < layout.hi[b] - layout.lo[b]; ++t) cross += rows[t];
            return cross;
        });
        return;
    }
    if (reordered) {
        if (!layout.pair_index.empty()) {
            gather(K, layout.pair_index.data(), P, reordered);
        } else {
            thread_local std::vector<double> strip;
            reorder_pairs(layout, P, reordered, strip);
        }
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            return cross_sum(layout, v, [reordered](int p, int q) { return reordered[tri_offset(p) + q]; });
        });
    } else {
        const int* order = layout.order.data();
        branch_sums(layout, P, m, both, one, work, [&](int v) {
            return cross_sum(layout, v, [P, order](int p, int q) {
                int const x = order[p], y = order[q];
                return P[x > y ? tri_offset(x) + y : tri_offset(y) + x];
            });
        });
    }
}

}  // namespace hmm_kernel
