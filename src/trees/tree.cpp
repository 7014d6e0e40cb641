#include "trees/tree.h"

#include <sstream>

const std::string BadTreeDataException::m_message = "Bad tree data encountered at ";

BadTreeDataException::BadTreeDataException(double position, std::string const& message) {
    std::ostringstream text;
    text << position << " " << message;
    detail = text.str();
}

namespace {

// The node with 1-based id `id`, or nullptr when no such node has been built.
// Ids are checked before subtracting so that extreme values cannot overflow.
tree_node* find_node(tree_nodes& tree, int id) {
    if (id < 1) return nullptr;
    auto it = tree.find(id - 1);
    return it == tree.end() ? nullptr : &it->second;
}

}  // namespace

void parse_tree(std::string const& text, tree_nodes& tree, int leaves) {
    tree.clear();
    std::istringstream in(text);

    // Header: "<position> <unused>;<n>;". The separators must follow the
    // number directly: get() does not skip blanks.
    double position = 0.0;
    double unused = 0.0;
    char separator = '\0';
    in >> position >> unused;
    in.get(separator);
    if (!in || separator != ';') throw BadTreeDataException(position, "expected ; not found.");

    int n = 0;
    in >> n;
    // Checked before anything is allocated, so a corrupt count cannot size the tree.
    if (!in || n != leaves) throw BadTreeDataException(position, "tree does not have the required number of leaves.");
    separator = '\0';
    in.get(separator);
    if (!in || separator != ';') throw BadTreeDataException(position, "expected ; not found.");

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
    for (;;) {
        int a = 0;
        int b = 0;
        // Nothing but blanks left: the merge list stopped without its closing
        // ";" (for instance right after a ","); the lineage count below
        // reports it. Anything else must be a whole merge.
        in >> std::ws;
        if (in.peek() == std::char_traits<char>::eof()) break;
        separator = '\0';
        in >> a >> b;
        in.get(separator);
        if (!in || (separator != ';' && separator != ','))
            throw BadTreeDataException(position, "expected ; or , not found.");

        tree_node* node_b = find_node(tree, b);
        tree_node* node_a = find_node(tree, a);
        if (node_a == nullptr || node_b == nullptr)
            throw BadTreeDataException(position, "error with tree topology, can't find branch in read_tree.");

        // Expected coalescent waiting time with k lineages: 2 / (k (k - 1)).
        double const k = static_cast<double>(active.size());
        time += 2.0 / (k * (k - 1.0));

        node_a->parent_time = time;
        node_a->branch_length = time - node_a->time;
        node_b->parent_time = time;
        node_b->branch_length = time - node_b->time;

        tree_node merged;
        merged.time = time;
        merged.leaves_below = node_a->leaves_below;
        merged.leaves_outside = node_a->leaves_outside;
        merged.child_a = a - 1;
        merged.child_b = b - 1;
        for (int x : node_b->leaves_below) {
            merged.leaves_below.insert(x);
            if (merged.leaves_outside.erase(x) == 0) throw BadTreeDataException(position, "leaf not found.");
        }
        tree.emplace(next_id, std::move(merged));

        active.erase(a - 1);
        active.erase(b - 1);
        active.insert(next_id);
        ++next_id;

        if (separator == ';') break;
    }

    if (active.size() != 1)
        throw BadTreeDataException(position, "error with one of the trees: does not reach the mrca.");
}
