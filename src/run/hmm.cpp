#include "run/hmm.h"

HMM::matrix_data::~matrix_data() = default;

void HMM::read_tree(std::string const& text, std::map<int, node>& tree, int const& leaves, bool leaf_sets) {
    parse_tree(text, tree, leaves, leaf_sets);
}
