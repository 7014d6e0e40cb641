#include "trees/tree.h"

#include <sstream>
#include <utility>
#include <vector>

const std::string BadTreeDataException::m_message = "Bad tree data encountered at ";

namespace {

std::string tree_error_detail(double position, std::string const& message) {
    std::ostringstream text;
    text << position << " " << message;
    return text.str();
}

}  // namespace

BadTreeDataException::BadTreeDataException(double position, std::string const& message)
    : BadTreeDataException(tree_error_detail(position, message)) {}

BadTreeDataException::BadTreeDataException(std::string detail_)
    : run_failure(m_message + detail_, true), detail(std::move(detail_)) {}

namespace {

// The node with 1-based id `id`, or nullptr when no such node has been built.
// Ids are checked before subtracting so that extreme values cannot overflow.
tree_node* find_node(tree_nodes& tree, int id) {
    if (id < 1) return nullptr;
    auto it = tree.find(id - 1);
    return it == tree.end() ? nullptr : &it->second;
}

}  // namespace

namespace {

// Reads "<position> <unused>;<n>;" and checks n; returns the position.
double read_header(std::istringstream& in, int leaves, int& n) {
    // The separators must follow the number directly: get() does not skip blanks.
    double position = 0.0;
    double unused = 0.0;
    char separator = '\0';
    in >> position >> unused;
    in.get(separator);
    if (!in || separator != ';') throw BadTreeDataException(position, "expected ; not found.");
    n = 0;
    in >> n;
    // Checked before anything is allocated, so a corrupt count cannot size the tree.
    if (!in || n != leaves) throw BadTreeDataException(position, "tree does not have the required number of leaves.");
    separator = '\0';
    in.get(separator);
    if (!in || separator != ';') throw BadTreeDataException(position, "expected ; not found.");
    return position;
}

// The two nodes a merge joins (b looked up first); a missing one is a
// topology error.
void find_merged_nodes(tree_nodes& tree, double position, int a, int b, tree_node*& node_a, tree_node*& node_b) {
    node_b = find_node(tree, b);
    node_a = find_node(tree, a);
    if (node_a == nullptr || node_b == nullptr)
        throw BadTreeDataException(position, "error with tree topology, can't find branch in read_tree.");
}

// Reads the next merge "a b" and its separator; false when only blanks are
// left (the merge list stopped without its closing ";", for instance right
// after a ","; the lineage count reports it).
bool read_merge(std::istringstream& in, double position, int& a, int& b, char& separator) {
    in >> std::ws;
    if (in.peek() == std::char_traits<char>::eof()) return false;
    separator = '\0';
    in >> a >> b;
    in.get(separator);
    if (!in || (separator != ';' && separator != ','))
        throw BadTreeDataException(position, "expected ; or , not found.");
    return true;
}

// Hands each merge of the list, up to the one closed by ";", to
// merge(a, b, node a, node b) (1-based ids); stops early, returning false,
// when merge does.
template <class Merge>
bool for_each_merge(std::istringstream& in, double position, tree_nodes& tree, Merge const& merge) {
    int a = 0, b = 0;
    char separator = '\0';
    while (read_merge(in, position, a, b, separator)) {
        tree_node* node_a = nullptr;
        tree_node* node_b = nullptr;
        find_merged_nodes(tree, position, a, b, node_a, node_b);
        if (!merge(a, b, *node_a, *node_b)) return false;
        if (separator == ';') break;
    }
    return true;
}

// Expected coalescent waiting time with k lineages: 2 / (k (k - 1)).
void join(tree_node& a, tree_node& b, double& time, double k) {
    time += 2.0 / (k * (k - 1.0));
    a.parent_time = time;
    a.branch_length = time - a.time;
    b.parent_time = time;
    b.branch_length = time - b.time;
}

void parse_with_leaf_sets(std::string const& text, tree_nodes& tree, int leaves) {
    tree.clear();
    std::istringstream in(text);
    int n = 0;
    double const position = read_header(in, leaves, n);

    std::set<int> active;  // node ids not merged yet
    for (int i = 0; i < n; ++i) {
        tree_node& leaf = tree[i];
        leaf.leaves_below.insert(i);
        for (int j = 0; j < n; ++j)
            if (j != i) leaf.leaves_outside.insert(leaf.leaves_outside.end(), j);
        active.insert(active.end(), i);
    }

    double time = 0.0;
    int next_id = n;
    for_each_merge(in, position, tree, [&](int a, int b, tree_node& node_a, tree_node& node_b) {
        join(node_a, node_b, time, static_cast<double>(active.size()));

        tree_node merged;
        merged.time = time;
        merged.leaves_below = node_a.leaves_below;
        merged.leaves_outside = node_a.leaves_outside;
        merged.child_a = a - 1;
        merged.child_b = b - 1;
        for (int x : node_b.leaves_below) {
            merged.leaves_below.insert(x);
            if (merged.leaves_outside.erase(x) == 0) throw BadTreeDataException(position, "leaf not found.");
        }
        tree.emplace(next_id, std::move(merged));

        active.erase(a - 1);
        active.erase(b - 1);
        active.insert(next_id);
        ++next_id;
        return true;
    });

    if (active.size() != 1)
        throw BadTreeDataException(position, "error with one of the trees: does not reach the mrca.");
}

}  // namespace

void parse_tree(std::string const& text, tree_nodes& tree, int leaves, bool leaf_sets) {
    if (leaf_sets) return parse_with_leaf_sets(text, tree, leaves);
    tree.clear();
    std::istringstream in(text);
    int n = 0;
    double const position = read_header(in, leaves, n);
    auto hint = tree.end();
    for (int i = 0; i < n; ++i) hint = tree.emplace_hint(hint, i, tree_node());
    std::vector<bool> merged(n, false);  // per node id: merged into a parent already

    // While every merge joins two distinct lineages that are still open, the
    // nodes form a forest whose roots have disjoint leaf sets, so no leaf set
    // is needed: the lineage count is n minus the merges. A merge that reuses
    // a node breaks that; the text is then malformed (a reused node either
    // shares a leaf with a later merge or leaves more than one lineage), and
    // the full parse gives the error it reaches first.
    double time = 0.0;
    int next_id = n;
    bool const forest = for_each_merge(in, position, tree, [&](int a, int b, tree_node& node_a, tree_node& node_b) {
        if (a == b || merged[a - 1] || merged[b - 1]) return false;
        join(node_a, node_b, time, static_cast<double>(n - (next_id - n)));
        merged[a - 1] = merged[b - 1] = true;
        merged.push_back(false);
        tree_node node;
        node.time = time;
        node.child_a = a - 1;
        node.child_b = b - 1;
        tree.emplace_hint(tree.end(), next_id++, node);
        return true;
    });
    if (!forest) return parse_with_leaf_sets(text, tree, leaves);
    if (n - (next_id - n) != 1)
        throw BadTreeDataException(position, "error with one of the trees: does not reach the mrca.");
}
