// ketra-prep's run: Ketra's input files for one region from a phased
// reference panel, study genotypes and a genetic map.
//
// The panel and the study are read side by side, one position at a time,
// through htslib's synced reader (one reader per file, so that each file
// keeps its own way of finding the region: jumping there with an index,
// streaming without), and every output line is written as soon as its record
// is read, so memory depends on the number of samples, not on the number of
// sites. Output files take their names only when the whole run has succeeded.
#pragma once

#include <iosfwd>
#include <string>

struct prep_options {
    std::string ref, study, bgen, bgen_sample, map, region, output, samples;
    bool gt = false;
    bool drop_ambiguous = false;
    bool plain = false;
};

// Runs ketra-prep and prints its report on `out` at the end. Throws
// prep_error when the run fails; no output file is left behind then.
void run_prep(prep_options const& options, std::ostream& out);
