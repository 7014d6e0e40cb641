// Placeholders for the tree readers that are not built yet.
#include "trees/tree.h"
#include "trees/tree_map.h"

const std::string BadTreeDataException::m_message = "Bad tree data encountered at ";
BadTreeDataException::BadTreeDataException(double, std::string const& message) : detail(message) {}
void parse_tree(std::string const&, tree_nodes&, int) {}
void read_tree_map_file(LSMatrixParameters const&, std::map<double, std::string>&) {}
