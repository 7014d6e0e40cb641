#include "app/driver.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <exception>
#include <new>
#include <system_error>
#include <map>
#include <sstream>
#include <string>

#include <boost/filesystem/exception.hpp>

#include "app/progress.h"
#include "data/data.h"
#include "engine/gpu_engine.h"
#include "io/output_file.h"
#include "io/run_failure.h"
#include "numlib/generator.h"
#include "params/parameters.h"
#include "results/partial_results.h"
#include "run/hmm.h"
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

// What the run is doing, for the message of a failure that no stage catches.
std::atomic<char const*> stage{"starting"};

// The stages of one run. Under -strict every failure returns a non-zero status.
int run_stages(int argc, char** argv) {
    HMM run;
    LSMatrixParameters parameters;
    std::map<double, std::string> tree_map;

    time_t const start = time(nullptr);
    srand(static_cast<unsigned>(time(nullptr)));
    int const seed1 = rand() % 10000 + 1;
    int const seed2 = rand() % 10000 + 1;

    print_banner();

    stage = "processing the command line and creating the output directory";
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
    } catch (FlagException const& e) {  // missing flags; unknown flags and bad values under -strict
        std::cout << e.message << std::endl;
        return 1;
    }
    bool const strict = parameters.strict;
    output_file::set_whole_files_only(strict);

    // Before any input is read: a run that asked for the GPU and cannot have
    // it stops here rather than quietly taking hours on the CPU.
    if (parameters.gpu) {
        std::string const why = hmm_gpu::unavailable_reason();
        if (!why.empty()) {
            std::cout << "Cannot run with -gpu: " << why << std::endl << "Program terminated" << std::endl;
            return 1;
        }
    }

    setall(seed1, seed2);

    // Bad data and bad trees end with status 0 by default (a pipeline asks
    // for -strict); a tree map file that cannot be used, and every other
    // failure, with status 1.
    auto report = [strict](run_failure const& e, bool data_stage) {
        std::cout << e.what() << std::endl << "Program terminated" << std::endl;
        return data_stage && e.is_data_failure() && !strict ? 0 : 1;
    };
    stage = "reading the tree map file";
    try {
        read_tree_map_file(parameters, tree_map);
        check_split_flags(parameters);
    } catch (run_failure const& e) {
        return report(e, false);
    }

    try {
        // A chunk run keeps its own .aux file, so that chunks can run side by side.
        parameters.aux_filename = (is_chunk_run(parameters)
                                       ? chunk_name(parameters, parameters.chunk_index, parameters.chunk_count)
                                       : parameters.output_file.string()) +
                                  ".aux";
        stage = "reading the input data";
        run = data(parameters);
        run.draw_progress = draw_progress_line;
        stage = "writing the SNP information file";
        if (parameters.seen("-snp_info")) run.output_snp_info();
        stage = "computing and writing the matrix";
        run.print_matrix(tree_map, parameters);
    } catch (run_failure const& e) {
        return report(e, true);
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

// -strict is a flag by whole-string equality wherever it stands, as the
// parameters read it; known here before they are parsed, because it decides
// whether failures the stages do not catch are caught at all.
bool asks_for_strict(int argc, char** argv) {
    for (int i = 0; i < argc; ++i)
        if (std::string(argv[i]) == "-strict") return true;
    return false;
}

// One line for a failure that no stage handles: what failed and where.
// Called inside a handler of the failure (or from terminate with it current);
// it allocates nothing, as memory may be what ran out.
int report_failure() {
    char const* kind = "";
    char const* what = "unexpected failure";
    try {
        if (std::current_exception()) throw;
    } catch (std::bad_alloc const&) {
        what = "out of memory";
    } catch (boost::filesystem::filesystem_error const& e) {
        kind = "file system error: ";
        what = e.what();
    } catch (std::system_error const& e) {
        kind = "system error (a thread could not be started?): ";
        what = e.what();
    } catch (std::exception const& e) {
        what = e.what();
    } catch (...) {
    }
    std::cout << "\nError while " << stage.load() << ": " << kind << what << "\nProgram terminated" << std::endl;
    return 1;
}

// A failure inside a worker thread ends the process through terminate; under
// -strict that too is one line and status 1.
[[noreturn]] void strict_terminate() {
    try {
        report_failure();
    } catch (...) {
    }
    std::_Exit(1);
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
    // By default failures nobody handles (out of memory, file-system errors)
    // keep the runtime's own termination.
    if (!asks_for_strict(argc, argv)) return run_stages(argc, argv);
    std::set_terminate(strict_terminate);
    try {
        return run_stages(argc, argv);
    } catch (...) {
        return report_failure();
    }
}
