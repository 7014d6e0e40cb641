// ketra-prep's run: Ketra's input files for one region from a phased
// reference panel, study genotypes and a genetic map.
//
// The panel and the study are read side by side, one position at a time,
// through htslib's synced reader (one per file, so that each file keeps its
// own way of finding the region: jumping there with an index, streaming
// without), and every output line is written as soon as its record is read,
// so memory depends on the number of samples, not on the number of sites.
// Output files are written under temporary names and take their own names
// only when the whole run has succeeded; a failed run leaves none.
//
// The report, the messages and every output byte are those of the Python
// script the tool replaces; the report is printed once the pass is over (it
// is the same text the script printed stage by stage). Where the script read
// the whole panel before the study, an error found in the study is held back
// until the panel has been read to its end, so that a panel error still wins.
#pragma once

#include <iosfwd>

#include "prep/arguments.h"

// Runs ketra-prep; the report and any error message go to `out`. Returns the
// exit status (0, or 1 after "ketra-prep: <message>").
int run_prep(prep_options const& options, std::ostream& out);
