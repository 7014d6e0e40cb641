// Split runs: "-chunk <i> <n>" computes the i-th of n slices of the
// individuals and leaves its records as partial results beside the output;
// "-merge <n>" checks the n partial results and writes the run's files from
// them, without running the passes.
//
// A chunk's partial results are "<output>.chunk<i>of<n>.part" (a text index:
// fingerprint, i and n, the individuals, the record layout, the record files
// with their CRC-32 and the individual of each record, the CRC-32 of all
// these lines, and a last line "complete") and the record files
// "<output>.chunk<i>of<n>.part.<worker>". The merge answers any damaged or
// foreign partial result with run_error.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "io/run_error.h"
#include "params/parameters.h"
#include "results/result_files.h"
#include "results/result_stream.h"

// "<output>.chunk<i>of<n>"
std::string chunk_name(LSMatrixParameters const& parameters, int i, int n);

// Fingerprint of the run: the command line without the program name,
// "-chunk", "-merge" and "-threads" (with their values), and each input
// file's name, size and modification time.
std::string run_fingerprint(LSMatrixParameters const& parameters);

// Writes chunk i's index. Only a complete one ends with the line that marks
// the partial results complete (an interrupted chunk leaves the incomplete one).
void write_chunk_index(LSMatrixParameters const& parameters, int N, std::pair<int, int> individuals,
                       result_layout const& layout, std::vector<result_part> const& parts, bool complete);

// Reads and checks the index of every chunk 1..n; returns all record files.
// Throws run_error when a chunk is missing or incomplete, or was made by
// another run (fingerprint, n, individuals or layout differ).
std::vector<result_part> read_chunk_indexes(LSMatrixParameters const& parameters, int N, result_layout const& layout);
