// Tree parser: node tables of small trees checked by hand, and every error.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "trees/tree.h"

namespace {

// The message of the exception parse_tree throws, or "" for a clean parse.
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

// Per node in id order: "children:leaves below|leaves outside".
std::string shape(tree_nodes const& tree) {
    std::string out;
    for (auto const& [id, node] : tree) {
        out += std::to_string(node.child_a) + "," + std::to_string(node.child_b) + ":";
        for (int l : node.leaves_below) out += std::to_string(l);
        out += "|";
        for (int l : node.leaves_outside) out += std::to_string(l);
        out += " ";
    }
    return out;
}

std::vector<double> field(tree_nodes const& tree, double tree_node::*member) {
    std::vector<double> out;
    for (auto const& [id, node] : tree) out.push_back(node.*member);
    return out;
}

}  // namespace

TEST(TreeParser, NodeTablesOfSmallTrees) {
    tree_nodes tree;
    parse_tree("1500 0;2;1 2;", tree, 2);  // root time 2 / (2 * 1) = 1
    EXPECT_EQ(shape(tree), "-1,-1:0|1 -1,-1:1|0 0,1:01| ");
    EXPECT_EQ(field(tree, &tree_node::time), (std::vector<double>{0, 0, 1}));
    EXPECT_EQ(field(tree, &tree_node::parent_time), (std::vector<double>{1, 1, 0}));
    EXPECT_EQ(field(tree, &tree_node::branch_length), (std::vector<double>{1, 1, 0}));

    // Merge times 1/6, 1/6 + 1/3 = 1/2 and 1/2 + 1 = 3/2; a previous tree is cleared.
    parse_tree("1500 0;4;1 2,3 4,5 6;", tree, 4);
    double const t1 = 2.0 / 12.0, t2 = t1 + 2.0 / 6.0, t3 = t2 + 1.0;
    EXPECT_DOUBLE_EQ(t2, 0.5);
    EXPECT_DOUBLE_EQ(t3, 1.5);
    EXPECT_EQ(shape(tree), "-1,-1:0|123 -1,-1:1|023 -1,-1:2|013 -1,-1:3|012 0,1:01|23 2,3:23|01 4,5:0123| ");
    EXPECT_EQ(field(tree, &tree_node::time), (std::vector<double>{0, 0, 0, 0, t1, t2, t3}));
    EXPECT_EQ(field(tree, &tree_node::parent_time), (std::vector<double>{t1, t1, t2, t2, t3, t3, 0}));
    EXPECT_EQ(field(tree, &tree_node::branch_length), (std::vector<double>{t1, t1, t2, t2, t3 - t1, t3 - t2, 0}));

    // Merges name their nodes in either order; ids follow the text.
    parse_tree("7 3;4;4 2,1 5,6 3;", tree, 4);
    EXPECT_EQ(shape(tree), "-1,-1:0|123 -1,-1:1|023 -1,-1:2|013 -1,-1:3|012 3,1:13|02 0,4:013|2 5,2:0123| ");
    EXPECT_EQ(field(tree, &tree_node::branch_length), (std::vector<double>{t2, t1, t3, t1, t2 - t1, t3 - t2, 0}));

    // Blanks before numbers and text after the last merge are accepted.
    parse_tree("  1500\t0; 4;\t1   2, 3 4,  5 6;  trailing ; garbage ,\r", tree, 4);
    EXPECT_EQ(field(tree, &tree_node::time), (std::vector<double>{0, 0, 0, 0, t1, t2, t3}));

    parse_tree("5 0;1;", tree, 1);  // a single leaf needs no merge; the previous nodes are gone
    EXPECT_EQ(shape(tree), "-1,-1:0| ");
}

TEST(TreeParser, Errors) {
    auto const at = [](std::string const& m) { return kPrefix + "1500 " + m; };
    std::string const semicolon = at("expected ; not found."), separator = at("expected ; or , not found.");
    std::string const count = at("tree does not have the required number of leaves.");
    std::string const topology = at("error with tree topology, can't find branch in read_tree.");
    std::string const leaf = at("leaf not found."), mrca = at("error with one of the trees: does not reach the mrca.");
    struct Case { std::string text; int leaves; std::string message; };
    std::vector<Case> const cases = {
        {"1500 0 ;4;1 2,3 4,5 6;", 4, semicolon},  // blank before ";"
        {"1500 0;4 ;1 2,3 4,5 6;", 4, semicolon},
        {"1500 0,4;1 2,3 4,5 6;", 4, semicolon},
        {"1500 0;4,1 2,3 4,5 6;", 4, semicolon},
        {"1500 0", 4, semicolon},
        {"", 4, kPrefix + "0 expected ; not found."},
        {"1500 0;4;1 2,3 4,5 6;", 5, count},
        {"1500 0;4;1 2,3 4,5 6;", 3, count},
        {"1500 0;x;1 2;", 4, count},
        {"1500 0;", 2, count},
        // A count far beyond the required one is rejected before anything is built.
        {"1500 0;2000000000;1 2;", 4, count},
        {"1500 0;99999999999999999999;1 2;", 4, count},
        {"1500 0;4;1 2 ,3 4,5 6;", 4, separator},
        {"1500 0;4;1 2.3 4,5 6;", 4, separator},
        {"1500 0;4;1 2,3 4,5 6", 4, separator},  // last merge unclosed
        {"1500 0;4;1 2,3", 4, separator},
        {"1500 0;4;1 2,x 4;", 4, separator},
        {"1500 0;4;1 99999999999,3 4;", 4, separator},
        {"1500 0;4;1 5,3 4,5 6;", 4, topology},  // node 5 not built yet
        {"1500 0;4;1 2,3 4,5 8;", 4, topology},
        {"1500 0;4;0 2,3 4,5 6;", 4, topology},
        {"1500 0;4;1 -1,3 4,5 6;", 4, topology},
        {"1500 0;4;-2147483648 1;", 4, topology},
        {"1500 0;4;1 2147483647;", 4, topology},
        {"1500 0;0;1 2;", 0, topology},
        {"1500 0;-3;1 2;", -3, topology},
        {"1500 0;4;1 1,3 4,5 6;", 4, leaf},  // self-merge
        {"1500 0;4;1 2,5 1;", 4, leaf},      // node 5 already holds leaf 1
        {"1500 0;4;1 2,3 4,5 6,7 7;", 4, leaf},
        {"1500 0;4;1 2,3 4;", 4, mrca},  // n - 2 merges
        {"1500 0;4;1 2,3 4,", 4, mrca},  // ends after ","
        {"1500 0;4;1 2,3 4,  ", 4, mrca},
        {"1500 0;4;", 4, mrca},
        {"1500 0;0;", 0, mrca},
        {"1500 0;-5;", -5, mrca},
        {"1500 0;2;1 2,1 2;", 2, mrca},  // re-merging merged-away nodes leaves a second lineage
        // The position is shown with six significant digits.
        {"1234567 0;3;1 2;", 3, kPrefix + "1.23457e+06 error with one of the trees: does not reach the mrca."},
        {"12.5 0;3;1 2;", 3, kPrefix + "12.5 error with one of the trees: does not reach the mrca."},
    };
    for (auto const& c : cases) EXPECT_EQ(parse_error(c.text, c.leaves), c.message) << c.text;

    tree_nodes tree;
    try {
        parse_tree("2.5 0;3;1 1;", tree, 3);
        FAIL() << "no exception";
    } catch (BadTreeDataException const& e) {
        EXPECT_EQ(BadTreeDataException::m_message, kPrefix);
        EXPECT_EQ(e.detail, "2.5 leaf not found.");
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
    EXPECT_EQ(parse_error(chain + ";", 2), kPrefix + "1 error with one of the trees: does not reach the mrca.");
}
