// The per-individual result stream: an engine produces one fixed-size record
// of doubles per individual; a sink takes it away (to disk) as soon as it is
// made, so that memory does not grow with the number of individuals. The
// writers read the records back at the end, in individual order.
#pragma once

#include <cstddef>
#include <vector>

// Where each value of an individual's record lies. Per selected position p,
// in ascending position order: the K haplotype copying probabilities, then
// (both, one) for each marked branch in ascending node id, then, with the
// pair matrices, the K(K+1)/2 values of the pair posterior.
struct result_layout {
    int K = 0;
    bool pair_matrices = false;
    std::vector<int> branches;        // marked branches per position
    std::vector<std::size_t> offset;  // first value of each position; one past the end last

    result_layout() = default;
    result_layout(int K, std::vector<int> branches, bool pair_matrices);

    int positions() const { return static_cast<int>(branches.size()); }
    std::size_t record_size() const { return offset.back(); }  // doubles
    std::size_t haplotypes_at(int p) const { return offset[p]; }
    std::size_t branches_at(int p) const { return offset[p] + static_cast<std::size_t>(K); }
    std::size_t pairs_at(int p) const { return branches_at(p) + 2 * static_cast<std::size_t>(branches[p]); }
    std::size_t pair_size() const { return static_cast<std::size_t>(K) * (K + 1) / 2; }

    bool operator==(result_layout const& other) const {
        return K == other.K && pair_matrices == other.pair_matrices && branches == other.branches;
    }
};

// Receives finished records. An engine calls take() from its worker threads,
// in whatever order individuals finish, but never concurrently with the same
// worker number; workers are numbered 0 .. workers - 1.
class result_sink {
public:
    virtual ~result_sink() = default;
    virtual void take(int worker, int individual, double const* record) = 0;
};

// Told after each individual is finished, from any worker thread.
class progress_listener {
public:
    virtual ~progress_listener() = default;
    virtual void individual_done() = 0;
};
