// The genetic map rows that span a region, read in one pass over the file
// (plain or gzip), keeping only the rows from the last one at or before the
// region's start to the first one at or after its end. Either layout, known
// by the header: 'pos chr cM' (rows of other chromosomes skipped) or
// 'position COMBINED_rate(cM/Mb) Genetic_Map(cM)'.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct map_row {
    std::int64_t position;
    double cm;
    std::string cm_text;  // the cM as the file writes it
};

// The rows kept; throws prep_error.
std::vector<map_row> read_map_rows(std::string const& path, std::string const& chrom, std::int64_t lo,
                                   std::int64_t hi);

// The map file's text: the header line and one line per row with the rate to
// the next row in cM/Mb.
std::string map_file_text(std::vector<map_row> const& rows);
