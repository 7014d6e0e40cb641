// The tree map file: position -> tree text line, within the "-int" interval.
#pragma once

#include <map>
#include <string>

#include "params/parameters.h"

void read_tree_map_file(LSMatrixParameters const& parameters, std::map<double, std::string>& tree_map);
