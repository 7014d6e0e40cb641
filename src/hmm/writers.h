// Text of the per-individual output that the matrix run writes while it goes.
#pragma once

#include <string>

// Appends one individual's .full_matrix block: K lines, line i holding the
// i + 1 values of row i of the triangular pair posterior, each followed by a
// blank; then two empty lines.
void append_full_matrix_block(std::string& out, double const* pair_posterior, int K);
