// ketra-prep: writes Ketra's input files for one region from a phased
// reference VCF/BCF, a study VCF/BCF (or BGEN with its .sample file) and a
// genetic map. See prepare.h.
#include <iostream>
#include <string>
#include <vector>

#include "prep/arguments.h"
#include "prep/prepare.h"

int main(int argc, char** argv) {
    std::vector<std::string> const args(argv + 1, argv + argc);
    prep_options options;
    int const status = parse_prep_arguments(args, options, std::cout, std::cerr);
    if (status >= 0) return status;
    return run_prep(options, std::cout);
}
