// Genealogical trees over the reference haplotypes, parsed from merge lists.
#pragma once

#include <map>
#include <set>
#include <string>

#include "io/run_failure.h"

// One node of a tree: a leaf (a reference haplotype) or a merge.
struct tree_node {
    std::set<int> leaves_below;    // leaves under this node
    std::set<int> leaves_outside;  // every other leaf
    double time = 0.0;             // height: 0 for a leaf, the merge time otherwise
    double parent_time = 0.0;      // height of the parent; 0 for the root
    double branch_length = 0.0;    // parent_time - time; 0 for the root
    // Ids of the two merged nodes (-1 for a leaf); lets per-branch sums be
    // built bottom-up instead of over leaf sets.
    int child_a = -1;
    int child_b = -1;
};

// Node table: ids 0..n-1 are the leaves, n, n+1, ... the merges in text order.
using tree_nodes = std::map<int, tree_node>;

class BadTreeDataException : public run_failure {
public:
    static const std::string m_message;  // "Bad tree data encountered at "
    BadTreeDataException(double position, std::string const& message);
    std::string detail;  // position (6 significant digits), a blank, the message

private:
    explicit BadTreeDataException(std::string detail);
};

// Parses a tree text "<pos> <x>;<n>;a b,c d,...;" into tree (cleared first).
// leaves is the number of leaves the tree must have. Throws BadTreeDataException.
// Without leaf_sets the nodes get times, branch lengths and children but empty
// leaf sets: O(n) memory instead of O(n^2), same values and same errors.
void parse_tree(std::string const& text, tree_nodes& tree, int leaves, bool leaf_sets = true);
