// Tree parser: node tables of small trees checked by hand, and every error.
#include <climits>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "trees/tree.h"

namespace {

std::set<int> range_set(int from, int to) {  // {from, ..., to - 1}
    std::set<int> s;
    for (int i = from; i < to; ++i) s.insert(i);
    return s;
}

// The full message of the exception parse_tree throws, or "" for a clean parse.
std::string parse_error(std::string const& text, int leaves) {
    tree_nodes tree;
    try {
        parse_tree(text, tree, leaves);
    } catch (BadTreeDataException const& e) {
        return e.what();
    }
    return "";
}

std::string const kPrefix = "Bad tree data encountered at ";

TEST(TreeParser, TwoLeavesMergeAtTimeOne) {
    tree_nodes tree;
    parse_tree("1500 0;2;1 2;", tree, 2);
    ASSERT_EQ(tree.size(), 3u);
    for (int leaf : {0, 1}) {
        tree_node const& node = tree.at(leaf);
        EXPECT_EQ(node.leaves_below, std::set<int>{leaf});
        EXPECT_EQ(node.leaves_outside, std::set<int>{1 - leaf});
        EXPECT_EQ(node.time, 0.0);
        EXPECT_EQ(node.parent_time, 1.0);
        EXPECT_EQ(node.branch_length, 1.0);
        EXPECT_EQ(node.child_a, -1);
        EXPECT_EQ(node.child_b, -1);
    }
    tree_node const& root = tree.at(2);
    EXPECT_EQ(root.time, 1.0);
    EXPECT_EQ(root.parent_time, 0.0);
    EXPECT_EQ(root.branch_length, 0.0);
    EXPECT_EQ(root.leaves_below, range_set(0, 2));
    EXPECT_TRUE(root.leaves_outside.empty());
    EXPECT_EQ(root.child_a, 0);
    EXPECT_EQ(root.child_b, 1);
}

TEST(TreeParser, FourLeafBalancedTree) {
    tree_nodes tree;
    parse_tree("1500 0;4;1 2,3 4,5 6;", tree, 4);
    ASSERT_EQ(tree.size(), 7u);
    // Merge times 1/6, 1/6 + 1/3, then + 1.
    double const t1 = 2.0 / 12.0, t2 = t1 + 2.0 / 6.0, t3 = t2 + 1.0;
    EXPECT_DOUBLE_EQ(t2, 0.5);
    EXPECT_DOUBLE_EQ(t3, 1.5);
    EXPECT_EQ(tree.at(4).time, t1);
    EXPECT_EQ(tree.at(5).time, t2);
    EXPECT_EQ(tree.at(6).time, t3);

    EXPECT_EQ(tree.at(0).branch_length, t1);
    EXPECT_EQ(tree.at(1).branch_length, t1);
    EXPECT_EQ(tree.at(2).branch_length, t2);
    EXPECT_EQ(tree.at(3).branch_length, t2);
    EXPECT_EQ(tree.at(4).parent_time, t3);
    EXPECT_EQ(tree.at(4).branch_length, t3 - t1);
    EXPECT_EQ(tree.at(5).branch_length, t3 - t2);
    EXPECT_EQ(tree.at(6).branch_length, 0.0);
    EXPECT_EQ(tree.at(6).parent_time, 0.0);

    EXPECT_EQ(tree.at(4).leaves_below, (std::set<int>{0, 1}));
    EXPECT_EQ(tree.at(4).leaves_outside, (std::set<int>{2, 3}));
    EXPECT_EQ(tree.at(5).leaves_below, (std::set<int>{2, 3}));
    EXPECT_EQ(tree.at(5).leaves_outside, (std::set<int>{0, 1}));
    EXPECT_EQ(tree.at(6).leaves_below, range_set(0, 4));
    EXPECT_EQ(tree.at(2).leaves_outside, (std::set<int>{0, 1, 3}));

    EXPECT_EQ(tree.at(4).child_a, 0);
    EXPECT_EQ(tree.at(4).child_b, 1);
    EXPECT_EQ(tree.at(5).child_a, 2);
    EXPECT_EQ(tree.at(5).child_b, 3);
    EXPECT_EQ(tree.at(6).child_a, 4);
    EXPECT_EQ(tree.at(6).child_b, 5);
}

TEST(TreeParser, FourLeafCaterpillarInTextOrder) {
    // Merges name their nodes in either order; ids follow the text.
    tree_nodes tree;
    parse_tree("7 3;4;4 2,1 5,6 3;", tree, 4);
    ASSERT_EQ(tree.size(), 7u);
    EXPECT_EQ(tree.at(4).leaves_below, (std::set<int>{1, 3}));
    EXPECT_EQ(tree.at(4).child_a, 3);
    EXPECT_EQ(tree.at(4).child_b, 1);
    EXPECT_EQ(tree.at(5).leaves_below, (std::set<int>{0, 1, 3}));
    EXPECT_EQ(tree.at(5).child_a, 0);
    EXPECT_EQ(tree.at(5).child_b, 4);
    EXPECT_EQ(tree.at(6).child_a, 5);
    EXPECT_EQ(tree.at(6).child_b, 2);
    EXPECT_EQ(tree.at(6).time, 1.5);
    EXPECT_EQ(tree.at(2).branch_length, 1.5);         // leaf 3 joins at the root
    EXPECT_EQ(tree.at(4).branch_length, 0.5 - 1.0 / 6.0);
    EXPECT_EQ(tree.at(5).branch_length, 1.0);
}

TEST(TreeParser, AcceptsBlanksBeforeNumbersAndIgnoresTextAfterTheLastMerge) {
    tree_nodes tree;
    parse_tree("  1500\t0; 4;\t1   2, 3 4,  5 6;  trailing ; garbage ,\r", tree, 4);
    EXPECT_EQ(tree.size(), 7u);
    EXPECT_EQ(tree.at(6).time, 1.5);
}

TEST(TreeParser, SingleLeafTreeNeedsNoMerge) {
    tree_nodes tree;
    parse_tree("5 0;1;", tree, 1);
    ASSERT_EQ(tree.size(), 1u);
    EXPECT_EQ(tree.at(0).leaves_below, std::set<int>{0});
    EXPECT_TRUE(tree.at(0).leaves_outside.empty());
}

TEST(TreeParser, ClearsThePreviousTree) {
    tree_nodes tree;
    parse_tree("1 0;4;1 2,3 4,5 6;", tree, 4);
    parse_tree("2 0;2;2 1;", tree, 2);
    ASSERT_EQ(tree.size(), 3u);
    EXPECT_EQ(tree.at(2).child_a, 1);
    EXPECT_EQ(tree.at(2).child_b, 0);
}

TEST(TreeParser, HeaderErrors) {
    std::string const semicolon = kPrefix + "1500 expected ; not found.";
    EXPECT_EQ(parse_error("1500 0 ;4;1 2,3 4,5 6;", 4), semicolon);  // blank before ";"
    EXPECT_EQ(parse_error("1500 0;4 ;1 2,3 4,5 6;", 4), semicolon);
    EXPECT_EQ(parse_error("1500 0,4;1 2,3 4,5 6;", 4), semicolon);
    EXPECT_EQ(parse_error("1500 0;4,1 2,3 4,5 6;", 4), semicolon);
    EXPECT_EQ(parse_error("1500 0", 4), semicolon);
    EXPECT_EQ(parse_error("", 4), kPrefix + "0 expected ; not found.");

    std::string const count = kPrefix + "1500 tree does not have the required number of leaves.";
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,5 6;", 5), count);
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,5 6;", 3), count);
    EXPECT_EQ(parse_error("1500 0;x;1 2;", 4), count);
    EXPECT_EQ(parse_error("1500 0;", 2), count);
    // A count far beyond the required one is rejected before anything is built.
    EXPECT_EQ(parse_error("1500 0;2000000000;1 2;", 4), count);
    EXPECT_EQ(parse_error("1500 0;99999999999999999999;1 2;", 4), count);
}

TEST(TreeParser, PositionUsesSixSignificantDigits) {
    EXPECT_EQ(parse_error("1234567 0;3;1 2;", 3),
              kPrefix + "1.23457e+06 error with one of the trees: does not reach the mrca.");
    EXPECT_EQ(parse_error("12.5 0;3;1 2;", 3),
              kPrefix + "12.5 error with one of the trees: does not reach the mrca.");
}

TEST(TreeParser, MergeErrors) {
    auto const msg = [](std::string const& m) { return kPrefix + "1500 " + m; };
    std::string const separator = msg("expected ; or , not found.");
    EXPECT_EQ(parse_error("1500 0;4;1 2 ,3 4,5 6;", 4), separator);
    EXPECT_EQ(parse_error("1500 0;4;1 2.3 4,5 6;", 4), separator);
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,5 6", 4), separator);  // last merge unclosed
    EXPECT_EQ(parse_error("1500 0;4;1 2,3", 4), separator);
    EXPECT_EQ(parse_error("1500 0;4;1 2,x 4;", 4), separator);
    EXPECT_EQ(parse_error("1500 0;4;1 99999999999,3 4;", 4), separator);

    std::string const topology = msg("error with tree topology, can't find branch in read_tree.");
    EXPECT_EQ(parse_error("1500 0;4;1 5,3 4,5 6;", 4), topology);  // node 5 not built yet
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,5 8;", 4), topology);
    EXPECT_EQ(parse_error("1500 0;4;0 2,3 4,5 6;", 4), topology);
    EXPECT_EQ(parse_error("1500 0;4;1 -1,3 4,5 6;", 4), topology);
    EXPECT_EQ(parse_error("1500 0;4;-2147483648 1;", 4), topology);
    EXPECT_EQ(parse_error("1500 0;4;1 2147483647;", 4), topology);
    EXPECT_EQ(parse_error("1500 0;0;1 2;", 0), topology);
    EXPECT_EQ(parse_error("1500 0;-3;1 2;", -3), topology);

    std::string const leaf = msg("leaf not found.");
    EXPECT_EQ(parse_error("1500 0;4;1 1,3 4,5 6;", 4), leaf);  // self-merge
    EXPECT_EQ(parse_error("1500 0;4;1 2,5 1;", 4), leaf);      // node 5 already holds leaf 1
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,5 6,7 7;", 4), leaf);

    std::string const mrca = msg("error with one of the trees: does not reach the mrca.");
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4;", 4), mrca);  // n - 2 merges
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,", 4), mrca);  // ends after ","
    EXPECT_EQ(parse_error("1500 0;4;1 2,3 4,  ", 4), mrca);
    EXPECT_EQ(parse_error("1500 0;4;", 4), mrca);
    EXPECT_EQ(parse_error("1500 0;0;", 0), mrca);
    EXPECT_EQ(parse_error("1500 0;-5;", -5), mrca);
    // Re-merging two merged-away nodes leaves a second lineage behind.
    EXPECT_EQ(parse_error("1500 0;2;1 2,1 2;", 2), mrca);
}

TEST(TreeParser, ExceptionKeepsItsParts) {
    tree_nodes tree;
    try {
        parse_tree("2.5 0;3;1 1;", tree, 3);
        FAIL() << "no exception";
    } catch (BadTreeDataException const& e) {
        EXPECT_EQ(BadTreeDataException::m_message, kPrefix);
        EXPECT_EQ(e.detail, "2.5 leaf not found.");
        EXPECT_EQ(e.what(), kPrefix + "2.5 leaf not found.");
    }
}

TEST(TreeParser, VeryLongTextsEndCleanly) {
    std::string const digits(1 << 20, '7');
    EXPECT_EQ(parse_error("1 0;4;" + digits, 4), kPrefix + "1 expected ; or , not found.");
    EXPECT_EQ(parse_error(digits + " 0;4;1 2;", 4).substr(0, kPrefix.size()), kPrefix);
    EXPECT_EQ(parse_error("1 0;4;1 2," + std::string(1 << 20, ' '), 4),
              kPrefix + "1 error with one of the trees: does not reach the mrca.");
    std::string chain = "1 0;2;1 2";
    for (int i = 0; i < 100000; ++i) chain += ",1 2";
    chain += ";";
    EXPECT_EQ(parse_error(chain, 2), kPrefix + "1 error with one of the trees: does not reach the mrca.");
}

}  // namespace
