// Tree parsing without leaf sets against the full parse: the same node values
// on random trees, and the same error on every malformed text.
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "trees/tree.h"

namespace {

// Node values as text (or the error), for comparing two parses.
std::string outcome(std::string const& text, int leaves, bool leaf_sets) {
    tree_nodes tree;
    try {
        parse_tree(text, tree, leaves, leaf_sets);
    } catch (BadTreeDataException const& e) {
        return e.what();
    }
    std::string out;
    char buffer[160];
    for (auto const& [id, node] : tree) {
        std::snprintf(buffer, sizeof buffer, "%d:%d,%d %a %a %a;", id, node.child_a, node.child_b, node.time,
                      node.parent_time, node.branch_length);
        out += buffer;
        if (!leaf_sets && (!node.leaves_below.empty() || !node.leaves_outside.empty())) out += "leaf sets!";
    }
    return out;
}

// A random merge order over n leaves, written as tree text.
std::string random_tree_text(int n, std::mt19937_64& rng) {
    std::vector<int> open;
    for (int i = 1; i <= n; ++i) open.push_back(i);
    std::string text = "12345 0;" + std::to_string(n) + ";";
    int next = n + 1;
    while (open.size() > 1) {
        std::size_t const x = rng() % open.size();
        int const a = open[x];
        open.erase(open.begin() + x);
        std::size_t const y = rng() % open.size();
        int const b = open[y];
        open[y] = next++;
        text += std::to_string(a) + " " + std::to_string(b) + (open.size() > 1 ? "," : ";");
    }
    return text;
}

}  // namespace

TEST(TreeLeanParse, SameNodesOrErrorAsTheFullParse) {
    // Reused, self-merged and unknown nodes at every stage, unclosed lists and
    // bad separators, read as trees over 3 and 4 leaves; then random valid trees.
    std::vector<std::pair<std::string, int>> cases;
    for (int leaves : {3, 4})
        for (char const* text :
             {"1500 0;4;1 1,3 4,5 6;", "1500 0;4;1 2,5 1;", "1500 0;4;1 2,3 4,5 6,7 7;", "1500 0;4;1 2,3 4;",
              "1500 0;4;1 2,3 4,", "1500 0;4;1 2,1 3,5 6;", "1500 0;4;1 2,1 3,6 4;", "1500 0;4;1 2,3 5,4 6;",
              "1500 0;2;1 2,1 2;", "1500 0;4;1 5,3 4,5 6;", "1500 0;4;1 2 ,3 4,5 6;", "1500 0;4;1 2,3 4,5 6",
              "1500 0;4;1 2,3 4,5 5;", "1500 0;3;1 2,4 3,5 1;", "1500 0;3;1 2,3 4,1 2;", "1500 0 ;4;1 2;",
              "1500 0;4;", "1500 0;3;2 1,4 3;x", "1500 0;5;1 2,3 6,4 5,7 8;", "1500 0;4;1 2,3 4,5 6;"})
            cases.emplace_back(text, leaves);
    std::mt19937_64 rng(3);
    cases.emplace_back("9 0;1;", 1);
    for (int n : {2, 3, 17, 200}) cases.emplace_back(random_tree_text(n, rng), n);
    for (std::size_t k = 0; k < cases.size(); ++k) {
        auto const& [text, leaves] = cases[k];
        std::string const full = outcome(text, leaves, true);
        EXPECT_EQ(outcome(text, leaves, false), full) << text << " over " << leaves;
        EXPECT_TRUE(k + 5 < cases.size() || full.find("Bad tree") == std::string::npos) << text;  // the valid ones
    }
}
