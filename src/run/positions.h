// The tree positions of a matrix run: which are selected (the others are
// logged to the .aux file), their parsed trees and what their files hold.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "engine/cpu_engine.h"
#include "results/writers.h"
#include "run/hmm.h"

// Positions within [first SNP, last SNP], each with its name and K zero
// sums; the others get a line in the .aux file. With remove_full_matrix, each
// selected position's old .full_matrix file is deleted.
std::map<double, HMM::matrix_data> select_positions(HMM const& run, std::map<double, std::string> const& trees,
                                                    LSMatrixParameters const& parameters, bool remove_full_matrix);

// Parses every position's tree into its nodes and fills the engine's view
// of it, with the trees' pair indexes where the CPU engine will use them and
// they fit their budget. Returns the index of the first position with a
// branch that can hold no results (a negative length), or -1.
int parse_position_trees(HMM& run, std::map<double, HMM::matrix_data>& positions, std::vector<position_tree>& trees,
                         bool for_cpu_engine);

// Names and marked branches of each position, ascending.
std::vector<output_position> describe_outputs(std::map<double, HMM::matrix_data> const& positions);
