// The run's result files, written at the end from the individuals' records:
// .full_matrix files, haplotype sums for the matrix file, and pardo files.
// Work is spread over positions (files) on several threads; each thread reads
// records in bounded blocks, so memory does not grow with individuals.
#pragma once

#include <string>
#include <vector>

#include "io/output_file.h"
#include "results/result_files.h"
#include "results/result_stream.h"

// What the writers need of one selected position.
struct output_position {
    double t = 0;
    std::string name;                    // "<output>.<t, fixed, 0 decimals>"
    std::vector<int> branch_ids;         // marked branches, ascending
    std::vector<double> branch_lengths;  // their lengths
};

// The matrix file's lines: per position (ascending) its position and K
// haplotype sums, "t v_1, ..., v_K;". The first position is written with 6
// significant digits, later ones with 10, as are the sums.
struct matrix_line {
    double t;
    std::vector<double> const* sums;
};
void write_matrix_lines(output_file& out, std::vector<matrix_line> const& lines);

// A details file: line k holds row k's values, each followed by a blank.
// Throws badfilename when the file cannot be opened.
void write_details_file(std::string const& file_name, std::vector<std::vector<double>> const& values);

// Appends one individual's .full_matrix block: K lines, line i holding the
// i + 1 values of row i of the triangular pair posterior, each followed by a
// blank; then two empty lines.
void append_full_matrix_block(std::string& out, double const* pair_posterior, int K);

// Per position, the sum over individuals of the haplotype probabilities,
// added in individual order starting from zero.
std::vector<std::vector<double>> sum_haplotype_probabilities(result_file_reader const& records,
                                                             result_layout const& layout, int threads);

// One file per distinct name: for every individual, the blocks of the
// positions sharing that name, ascending. Nothing is written without
// individuals. A file that cannot be opened is skipped quietly, or is a
// write_error when strict.
void write_full_matrix_files(result_file_reader const& records, result_layout const& layout,
                             std::vector<output_position> const& positions, int threads, bool strict);

// One pardo file per distinct position name (the highest position of a shared
// name wins), from the individuals' records; with gzip, "name.pardo.gz": a
// series of independently compressed blocks. Files are written in parallel. A
// file that cannot be opened is skipped quietly, or is a write_error when strict.
void write_pardo_files(result_file_reader const& records, result_layout const& layout,
                       std::vector<output_position> const& positions, int threads, bool gzip, bool strict);
