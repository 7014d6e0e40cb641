// ketra-prep's command line, read the way Python's argparse read it when the
// tool was a script: the same flags, unique prefixes of them, "-flag=value",
// "-oVALUE", the same usage text, error lines and exit statuses.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

struct prep_options {
    std::optional<std::string> ref, study, bgen, bgen_sample, map, region, output, samples;
    bool gt = false;
    bool drop_ambiguous = false;
    bool plain = false;
};

// Reads the arguments (without the program name). Returns -1 when the run
// goes on; otherwise the exit status, after the help (status 0, on `out`) or
// the usage and an error line (status 2, on `err`) were written.
int parse_prep_arguments(std::vector<std::string> const& args, prep_options& options, std::ostream& out,
                         std::ostream& err);
