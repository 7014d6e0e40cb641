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

struct Merge {
    int a, b;  // 1-based ids as written in the text
};

// A random complete merge order over n leaves.
std::vector<Merge> random_merges(int n, std::mt19937& rng) {
    std::vector<int> active;
    for (int i = 1; i <= n; ++i) active.push_back(i);
    std::vector<Merge> merges;
    int next = n + 1;
    while (active.size() > 1) {
        std::uniform_int_distribution<size_t> pick(0, active.size() - 1);
        size_t const i = pick(rng);
        std::swap(active[i], active.back());
        int const a = active.back();
        active.pop_back();
        size_t const j = pick(rng) % active.size();
        int const b = active[j];
        active[j] = next++;
        merges.push_back({a, b});
    }
    return merges;
}

std::string tree_text(double position, int n, std::vector<Merge> const& merges) {
    std::string text = std::to_string(static_cast<long long>(position)) + " 0;" + std::to_string(n) + ";";
    for (size_t m = 0; m < merges.size(); ++m) {
        text += std::to_string(merges[m].a) + " " + std::to_string(merges[m].b);
        text += m + 1 == merges.size() ? ";" : ",";
    }
    return text;
}

// Every node's two leaf sets partition 0..n-1.
void expect_partitions(tree_nodes const& tree, int n) {
    for (auto const& [id, node] : tree) {
        ASSERT_EQ(node.leaves_below.size() + node.leaves_outside.size(), static_cast<size_t>(n)) << "node " << id;
        for (int x : node.leaves_below) {
            ASSERT_TRUE(x >= 0 && x < n);
            ASSERT_EQ(node.leaves_outside.count(x), 0u) << "node " << id;
        }
        for (int x : node.leaves_outside) ASSERT_TRUE(x >= 0 && x < n);
    }
}

TEST(TreeParserRandom, ValidMergeOrdersGiveCoalescentTimesAndNestedLeafSets) {
    std::mt19937 rng(20240611);
    for (int n = 2; n <= 200; ++n) {
        std::vector<Merge> const merges = random_merges(n, rng);
        tree_nodes tree;
        ASSERT_NO_THROW(parse_tree(tree_text(1000 + n, n, merges), tree, n)) << "n = " << n;
        ASSERT_EQ(tree.size(), static_cast<size_t>(2 * n - 1));
        expect_partitions(tree, n);

        // The j-th merge happens with n - j lineages, waiting 2 / (k (k - 1)).
        double expected_time = 0.0;
        for (int j = 0; j < n - 1; ++j) {
            double const k = n - j;
            expected_time += 2.0 / (k * (k - 1.0));
            tree_node const& node = tree.at(n + j);
            ASSERT_EQ(node.time, expected_time) << "n = " << n << ", merge " << j;
            ASSERT_EQ(node.child_a, merges[j].a - 1);
            ASSERT_EQ(node.child_b, merges[j].b - 1);

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
            ASSERT_GT(node.branch_length, 0.0) << "n = " << n << ", node " << id;
            ASSERT_EQ(node.branch_length, node.parent_time - node.time);
        }
        for (int leaf = 0; leaf < n; ++leaf) {
            ASSERT_EQ(tree.at(leaf).leaves_below, std::set<int>{leaf});
            ASSERT_EQ(tree.at(leaf).time, 0.0);
        }
    }
}

// One random corruption of a tree text.
std::string mutate(std::string text, std::mt19937& rng) {
    static std::vector<std::string> const numbers = {
        "0", "-1", "-0", "2147483647", "-2147483648", "2147483648", "99999999999999999999",
        "1e308", "1e999", "nan", "inf", "+3", "0x10", "007", "3.5", "",
    };
    static std::string const alphabet = "0123456789 ,;-+.\t\r\nex";
    auto position = [&](size_t extra) {
        return std::uniform_int_distribution<size_t>(0, text.size() + extra - 1)(rng);
    };
    int const edits = std::uniform_int_distribution<int>(1, 4)(rng);
    for (int e = 0; e < edits; ++e) {
        int const kind = std::uniform_int_distribution<int>(0, 6)(rng);
        if (text.empty() && kind != 3) {
            text += alphabet[position(1) % alphabet.size()];
            continue;
        }
        switch (kind) {
        case 0:  // replace a byte with a grammar character
            text[position(0)] = alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(rng)];
            break;
        case 1:  // replace a byte with any byte
            text[position(0)] = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
            break;
        case 2:  // delete a byte
            text.erase(position(0), 1);
            break;
        case 3:  // insert a byte
            text.insert(position(1), 1, alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(rng)]);
            break;
        case 4:  // truncate
            text.resize(position(1));
            break;
        case 5: {  // replace a run of digits with an extreme number
            size_t start = position(0);
            while (start < text.size() && !isdigit(static_cast<unsigned char>(text[start]))) ++start;
            size_t end = start;
            while (end < text.size() && isdigit(static_cast<unsigned char>(text[end]))) ++end;
            text.replace(start, end - start,
                         numbers[std::uniform_int_distribution<size_t>(0, numbers.size() - 1)(rng)]);
            break;
        }
        default:  // duplicate a slice
            size_t const from = position(0);
            size_t const length = std::min<size_t>(text.size() - from, 12);
            text.insert(position(1), text.substr(from, length));
            break;
        }
    }
    return text;
}

TEST(TreeParserRandom, CorruptedTextsEndInCleanParseOrBadTreeData) {
    std::mt19937 rng(7);
    int clean = 0;
    int rejected = 0;
    for (int iteration = 0; iteration < 20000; ++iteration) {
        int const n = std::uniform_int_distribution<int>(1, 24)(rng);
        std::string const text = mutate(tree_text(5000 + iteration, n, random_merges(n, rng)), rng);
        // Usually the tree's own count; sometimes a neighbour or a degenerate one.
        int leaves = n;
        switch (iteration % 10) {
        case 7: leaves = n + 1; break;
        case 8: leaves = 0; break;
        case 9: leaves = -1; break;
        default: break;
        }
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

}  // namespace
