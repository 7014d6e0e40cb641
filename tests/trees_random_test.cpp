// Tree parser on many generated trees: random valid merge orders checked
// against the coalescent times and leaf-set invariants, and corrupted texts
// that must end in a clean parse or BadTreeDataException, nothing else.
#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "trees/tree.h"

namespace {

// A random complete merge order over n leaves, 1-based ids as written in the text.
std::vector<std::pair<int, int>> random_merges(int n, std::mt19937& rng) {
    std::vector<int> active;
    for (int i = 1; i <= n; ++i) active.push_back(i);
    std::vector<std::pair<int, int>> merges;
    for (int next = n + 1; active.size() > 1; ++next) {
        std::swap(active[std::uniform_int_distribution<size_t>(0, active.size() - 1)(rng)], active.back());
        int const a = active.back();
        active.pop_back();
        int& b = active[std::uniform_int_distribution<size_t>(0, active.size() - 1)(rng)];
        merges.push_back({a, b});
        b = next;
    }
    return merges;
}

std::string tree_text(long long position, int n, std::vector<std::pair<int, int>> const& merges) {
    std::string text = std::to_string(position) + " 0;" + std::to_string(n) + ";";
    for (size_t m = 0; m < merges.size(); ++m)
        text += std::to_string(merges[m].first) + " " + std::to_string(merges[m].second) +
                (m + 1 == merges.size() ? ";" : ",");
    return text;
}

// Every node's two leaf sets partition 0..n-1.
void expect_partitions(tree_nodes const& tree, int n) {
    for (auto const& [id, node] : tree) {
        ASSERT_EQ(node.leaves_below.size() + node.leaves_outside.size(), static_cast<size_t>(n)) << "node " << id;
        std::set<int> all = node.leaves_below;
        all.insert(node.leaves_outside.begin(), node.leaves_outside.end());
        ASSERT_EQ(all.size(), static_cast<size_t>(n)) << "node " << id;
        ASSERT_TRUE(*all.begin() == 0 && *all.rbegin() == n - 1) << "node " << id;
    }
}

}  // namespace

TEST(TreeParserRandom, ValidMergeOrdersGiveCoalescentTimesAndNestedLeafSets) {
    std::mt19937 rng(20240611);
    for (int n = 2; n <= 200; ++n) {
        SCOPED_TRACE("n = " + std::to_string(n));
        auto const merges = random_merges(n, rng);
        tree_nodes tree;
        ASSERT_NO_THROW(parse_tree(tree_text(1000 + n, n, merges), tree, n));
        ASSERT_EQ(tree.size(), static_cast<size_t>(2 * n - 1));
        expect_partitions(tree, n);
        // The j-th merge happens with n - j lineages, waiting 2 / (k (k - 1)).
        double expected_time = 0.0;
        for (int j = 0; j < n - 1; ++j) {
            double const k = n - j;
            expected_time += 2.0 / (k * (k - 1.0));
            tree_node const& node = tree.at(n + j);
            ASSERT_EQ(node.time, expected_time) << "merge " << j;
            ASSERT_EQ(node.child_a, merges[j].first - 1);
            ASSERT_EQ(node.child_b, merges[j].second - 1);
            tree_node const& left = tree.at(node.child_a);
            tree_node const& right = tree.at(node.child_b);
            std::set<int> joined = left.leaves_below;
            joined.insert(right.leaves_below.begin(), right.leaves_below.end());
            ASSERT_EQ(joined.size(), left.leaves_below.size() + right.leaves_below.size());
            ASSERT_EQ(joined, node.leaves_below);
            ASSERT_EQ(left.parent_time, node.time);
            ASSERT_EQ(right.parent_time, node.time);
        }
        tree_node const& root = tree.at(2 * n - 2);
        ASSERT_NEAR(root.time, 2.0 * (1.0 - 1.0 / n), 1e-12);
        ASSERT_EQ(root.leaves_below.size(), static_cast<size_t>(n));
        ASSERT_EQ(root.branch_length, 0.0);
        ASSERT_EQ(root.parent_time, 0.0);
        for (auto const& [id, node] : tree) {
            if (id == 2 * n - 2) continue;
            ASSERT_GT(node.branch_length, 0.0) << "node " << id;
            ASSERT_EQ(node.branch_length, node.parent_time - node.time);
            ASSERT_TRUE(id >= n || (node.leaves_below == std::set<int>{id} && node.time == 0.0)) << id;
        }
    }
}

TEST(TreeParserRandom, CorruptedTextsEndInCleanParseOrBadTreeData) {
    static std::vector<std::string> const numbers = {"0", "-1", "-0", "2147483647", "-2147483648", "2147483648",
                                                     "99999999999999999999", "1e308", "1e999", "nan", "inf", "+3",
                                                     "0x10", "007", "3.5", ""};
    static std::string const alphabet = "0123456789 ,;-+.\t\r\nex";
    std::mt19937 rng(7);
    auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
    int clean = 0, rejected = 0;
    for (int iteration = 0; iteration < 20000; ++iteration) {
        int const n = 1 + static_cast<int>(pick(24));
        std::string text = tree_text(5000 + iteration, n, random_merges(n, rng));
        for (int e = 0, edits = 1 + static_cast<int>(pick(4)); e < edits; ++e) {
            size_t const kind = pick(7);
            if (text.empty() && kind != 3) {
                text += alphabet[pick(alphabet.size())];
                continue;
            }
            size_t const at = pick(text.size()), gap = pick(text.size() + 1);
            if (kind == 0) text[at] = alphabet[pick(alphabet.size())];      // a grammar character
            else if (kind == 1) text[at] = static_cast<char>(pick(256));    // any byte
            else if (kind == 2) text.erase(at, 1);
            else if (kind == 3) text.insert(gap, 1, alphabet[pick(alphabet.size())]);
            else if (kind == 4) text.resize(gap);
            else if (kind == 5) {  // a run of digits becomes an extreme number
                size_t start = at, end;
                while (start < text.size() && !isdigit(static_cast<unsigned char>(text[start]))) ++start;
                for (end = start; end < text.size() && isdigit(static_cast<unsigned char>(text[end]));) ++end;
                text.replace(start, end - start, numbers[pick(numbers.size())]);
            } else text.insert(gap, text.substr(at, 12));  // a duplicated slice
        }
        // Usually the tree's own count; sometimes a neighbour or a degenerate one.
        int const leaves = iteration % 10 == 7 ? n + 1 : iteration % 10 == 8 ? 0 : iteration % 10 == 9 ? -1 : n;
        tree_nodes tree;
        try {
            parse_tree(text, tree, leaves);
        } catch (BadTreeDataException const& e) {
            ++rejected;
            ASSERT_EQ(e.what().rfind(BadTreeDataException::m_message, 0), 0u);
            continue;
        } catch (...) {
            FAIL() << "unexpected exception for text: " << text;
        }
        ++clean;
        // A clean parse covers every leaf from its last node down.
        ASSERT_GE(leaves, 1) << text;
        ASSERT_EQ(tree.rbegin()->second.leaves_below.size(), static_cast<size_t>(leaves)) << text;
        expect_partitions(tree, leaves);
    }
    // Both outcomes must actually occur, or the corruption is not exercising the parser.
    EXPECT_GT(clean, 200);
    EXPECT_GT(rejected, 5000);
}
