#include "app/driver.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "data/data.h"
#include "hmm/hmm.h"
#include "numlib/generator.h"
#include "params/parameters.h"
#include "trees/tree.h"
#include "trees/tree_map.h"

namespace {

void print_banner() {
    std::string const rule(67, '=');
    std::cout << std::endl << std::endl;
    std::cout << rule << std::endl;
    std::cout << "  Welcome to Ketra (part of the Sandrelo software)   " << std::endl;
    std::cout << "  haplotype-pair copying probabilities along local genealogies" << std::endl;
    std::cout << rule << std::endl;
    std::cout << std::endl;
}

bool asks_for_version(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "-version") return true;
    return false;
}

}  // namespace

int run_ketra(int argc, char** argv) {
    // Answered before anything else so that scripts can read it without a banner.
    if (asks_for_version(argc, argv)) {
        std::cout << "Ketra " << KETRA_VERSION << std::endl;
        return 0;
    }

    HMM run;
    LSMatrixParameters parameters;
    std::map<double, std::string> tree_map;

    time_t const start = time(nullptr);
    srand(static_cast<unsigned>(time(nullptr)));
    int const seed1 = rand() % 10000 + 1;
    int const seed2 = rand() % 10000 + 1;

    print_banner();

    try {
        parameters.process_parameters(argc, argv);
        std::ostringstream summary;
        static_cast<Parameters&>(parameters).parameters_summary(summary);
        std::cout << summary.str();
    } catch (HelpException const&) {
        std::ostringstream help;
        static_cast<Parameters&>(parameters).parameters_help(help);
        std::cout << help.str();
        return 0;
    } catch (MissingFlagException const& e) {
        std::cout << e.message << std::endl;
        return 1;
    }

    setall(seed1, seed2);

    try {
        read_tree_map_file(parameters, tree_map);
    } catch (badfilename const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 1;
    }

    try {
        parameters.aux_filename = parameters.output_file.string() + ".aux";
        run = data(parameters);
        if (parameters.seen("-snp_info")) run.output_snp_info();
        run.print_matrix(tree_map, parameters);
    } catch (BadTreeDataException const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 0;
    } catch (badfilename const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 0;
    }

    time_t const end = time(nullptr);
    std::cout.flush();
    printf("Ketra took %.2lf seconds to complete.\n", difftime(end, start));
    fflush(stdout);
    std::cout << std::endl << std::endl
              << "Ketra complete! Please run Ovrin once you have ran Ketra on all your case and control genotype data."
              << std::endl;
    return 0;
}
