#include "app/driver.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "data/data.h"
#include "app/progress.h"
#include "hmm/hmm.h"
#include "hmm/partial_results.h"
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

}  // namespace

int run_ketra(int argc, char** argv) {
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
        check_split_flags(parameters);
    } catch (run_error const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 1;
    }

    try {
        // A chunk run keeps its own .aux file, so that chunks can run side by side.
        parameters.aux_filename = (is_chunk_run(parameters)
                                       ? chunk_name(parameters, parameters.chunk_index, parameters.chunk_count)
                                       : parameters.output_file.string()) +
                                  ".aux";
        run.draw_progress = draw_progress_line;
        run = data(parameters);
        if (parameters.seen("-snp_info")) run.output_snp_info();
        run.print_matrix(tree_map, parameters);
    } catch (BadTreeDataException const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 0;
    } catch (badfilename const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 0;
    } catch (run_error const& e) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return 1;
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
