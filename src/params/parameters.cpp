#include "params/parameters.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <iostream>

#include <boost/filesystem/operations.hpp>

#include "io/console.h"
#include "io/run_error.h"

const std::string HelpException::m_what = "Help wanted";
const std::string FlagException::m_message = "ERROR!!! Flag error";
const std::string BadInputValueException::m_message = "ERROR!!! Bad value given for flag";
const std::string MissingFlagException::m_message = "ERROR!!! Must specify a value for flag";

Parameters::Parameters() : aux_filename("aux1") {}
Parameters::~Parameters() = default;

LSMatrixParameters::LSMatrixParameters() { reset_parameters(); }
LSMatrixParameters::~LSMatrixParameters() = default;

void LSMatrixParameters::reset_parameters() {
    exclude_snps_files.clear();
    required_flags.clear();
    flag_dependencies.clear();

    tree_filename = "tree_map.txt";
    command_line.clear();
    buffer = 500;
    call_thresh = 0.9;
    tavlo_input = false;
    detail = false;
    exclude_samples_file = "NULL";
    genotype_file = "NULL";
    haplotype_file = "NULL";
    legend_file = "NULL";
    lower = -1;
    genetic_map_file = "NULL";
    Ne = 11418;
    num_individuals = 0;
    print_matrix = false;
    sample_file = "NULL";
    strand_file = "NULL";
    theta = -1;
    tree_file = "NULL";
    upper = -1;
    threads = 1;
    chunk_index = 0;
    chunk_count = 0;
    merge_count = 0;
    strict = false;
    gpu = false;
    pardo_gz = false;

    required_flags = {"-h", "-l", "-m", "-tree_file", "-g", "-o"};
    flag_dependencies["-exclude_samples"] = {"-sample"};
}

namespace {

bool begins_with_dash(char const* s) { return s[0] == '-'; }

// Every flag a run understands: the parameter table's and this tool's own.
std::set<std::string> const known_flags = {
    "-help", "-h", "-l", "-m", "-int", "-tree_file", "-g", "-buffer", "-tavlo_input", "-call_thresh",
    "-detail", "-exclude_snps", "-exclude_samples", "-Ne", "-o", "-print_matrix", "-sample", "-strand",
    "-theta", "-tree_filename", "-threads", "-chunk", "-merge", "-strict", "-gpu", "-pardo_gz", "-version",
    "-snp_info", "-fix_strand"};

// The number the whole text spells, or nothing. Integers must be whole.
bool parse_number(std::string const& text, bool integer, double& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    if (integer) {
        long const n = std::strtol(text.c_str(), &end, 10);
        value = static_cast<double>(n);
        if (errno == ERANGE || n < INT_MIN || n > INT_MAX) return false;
    } else {
        value = std::strtod(text.c_str(), &end);
    }
    return *end == '\0';
}

}  // namespace

// The argument at index i + offset, which the value flag at index i needs; it
// is remembered as a value, so that "-int -1 5" holds no flag "-1".
std::string LSMatrixParameters::value_after(int argc, char** argv, int i, int offset) {
    if (i + offset >= argc)
        throw MissingFlagException(argv[i], MissingFlagException::m_message + argv[i]);
    value_positions_.insert(i + offset);
    return argv[i + offset];
}

std::string LSMatrixParameters::number_after(int argc, char** argv, int i, int offset, bool integer) {
    std::string text = value_after(argc, argv, i, offset);
    number_texts_[std::string(argv[i]) + (offset == 2 ? " (second value)" : "")] = {text, integer};
    return text;
}

void LSMatrixParameters::check_strict(int argc, char** argv) const {
    for (int i = 1; i < argc; ++i) {
        if (!begins_with_dash(argv[i]) || value_positions_.count(i) || known_flags.count(argv[i])) continue;
        throw FlagException(argv[i], FlagException::m_message + ": unknown flag " + argv[i]);
    }
    auto bad_value = [](std::string const& flag, std::string const& text, std::string const& why) {
        return BadInputValueException(flag, BadInputValueException::m_message + " " + flag + ": " + text + " (" +
                                                why + ")");
    };
    for (auto const& entry : number_texts_) {
        double value = 0.0;
        bool const integer = entry.second.second;
        std::string const& text = entry.second.first;
        if (!parse_number(text, integer, value))
            throw bad_value(entry.first, text, integer ? "not a whole number" : "not a number");
        if (!std::isfinite(value)) throw bad_value(entry.first, text, "not a finite number");
    }
    auto text_of = [this](std::string const& flag) { return number_texts_.at(flag).first; };
    if (Ne < 0 || Ne > 30000) throw bad_value("-Ne", text_of("-Ne"), "must lie between 0 and 30000");
    if (seen("-theta") && theta < 0) throw bad_value("-theta", text_of("-theta"), "must not be negative");
    if (call_thresh < 0 || call_thresh > 1)
        throw bad_value("-call_thresh", text_of("-call_thresh"), "must lie between 0 and 1");
}

void LSMatrixParameters::process_parameters(int argc, char** argv) {
    reset_parameters();
    value_positions_.clear();
    number_texts_.clear();

    for (int i = 0; i < argc; ++i) {
        std::string const arg = argv[i];
        command_line += arg + " ";
        if (!begins_with_dash(argv[i])) continue;
        flags_seen.insert(arg);

        // Independent comparisons, as the flags are matched by whole-string equality.
        if (arg == "-help") throw HelpException();
        if (arg == "-h") haplotype_file = value_after(argc, argv, i, 1);
        if (arg == "-l") legend_file = value_after(argc, argv, i, 1);
        if (arg == "-m") genetic_map_file = value_after(argc, argv, i, 1);
        if (arg == "-int") {
            std::string lo = number_after(argc, argv, i, 1, false);
            std::string hi = number_after(argc, argv, i, 2, false);
            lower = std::atof(lo.c_str());
            upper = std::atof(hi.c_str());
        }
        if (arg == "-tree_file") tree_file = value_after(argc, argv, i, 1);
        if (arg == "-g") genotype_file = value_after(argc, argv, i, 1);
        if (arg == "-buffer") buffer = std::atoi(number_after(argc, argv, i, 1, false).c_str());
        if (arg == "-tavlo_input") tavlo_input = true;
        if (arg == "-call_thresh") call_thresh = std::atof(number_after(argc, argv, i, 1, false).c_str());
        if (arg == "-detail") detail = true;
        if (arg == "-exclude_snps") {
            for (int j = i + 1; j < argc && !begins_with_dash(argv[j]); ++j)
                exclude_snps_files.push_back(argv[j]);
        }
        if (arg == "-exclude_samples") exclude_samples_file = value_after(argc, argv, i, 1);
        if (arg == "-Ne") Ne = std::atof(number_after(argc, argv, i, 1, false).c_str());
        if (arg == "-o") {
            output_file = value_after(argc, argv, i, 1);
            output_dir = output_file.parent_path();
        }
        if (arg == "-print_matrix") print_matrix = true;
        if (arg == "-sample") sample_file = value_after(argc, argv, i, 1);
        if (arg == "-strand") strand_file = value_after(argc, argv, i, 1);
        if (arg == "-theta") theta = std::atof(number_after(argc, argv, i, 1, false).c_str());
        if (arg == "-tree_filename") tree_filename = value_after(argc, argv, i, 1);
        if (arg == "-threads") threads = std::atoi(number_after(argc, argv, i, 1, true).c_str());
        if (arg == "-chunk") {
            chunk_index = std::atoi(number_after(argc, argv, i, 1, true).c_str());
            chunk_count = std::atoi(number_after(argc, argv, i, 2, true).c_str());
        }
        if (arg == "-merge") merge_count = std::atoi(number_after(argc, argv, i, 1, true).c_str());
        if (arg == "-strict") strict = true;
        if (arg == "-gpu") gpu = true;
        if (arg == "-pardo_gz") pardo_gz = true;
    }

    if (strict) check_strict(argc, argv);
    if (Ne == -1 || Ne < 0 || Ne > 30000) std::cout << "Error: Ne needs to be set" << std::endl;

    for (std::string const& flag : required_flags)
        if (!seen(flag)) throw MissingFlagException(flag, FlagException::m_message + flag);

    for (auto const& dependency : flag_dependencies) {
        if (!seen(dependency.first)) continue;
        for (std::string const& needed : dependency.second)
            if (!seen(needed)) throw MissingFlagException(needed, FlagException::m_message + needed);
    }

    if (!boost::filesystem::exists(output_dir)) {
        std::cout << "Creating directory " << output_dir.string() << std::endl;
        if (!output_dir.empty()) boost::filesystem::create_directories(output_dir);
    }
}

void LSMatrixParameters::parameters_help(std::ostream& os) const {
    auto row = [&os](char const* flag, char const* text) {
        os << std::left << std::setw(33) << flag << text;
    };
    os << "Ketra help menu." << "\n\n";
    os << "Essential parameters are:\n";
    row("-h <file> ", ": the reference panel (e.g. HapMap) file\n");
    row("-l <file> ", ": the legend file to the reference panel\n");
    row("-m <file> ... ", ": the recombinaion rate file\n");
    row("-int <pos1> <pos2> ", ": the physical position interval of interest (pos2>pos1) \n");
    row("-tree_file <file>", ": the tree file \n");
    row("-g <file> ", ": the genotype file in pardo format\n\n");
    os << "Optional parameters are:\n";
    row("-buffer <int>", ": the buffer region either side of region of interest in kb, default is 500\n");
    row("-call_thresh <p>", ": the threshold of the genotype probabilities, default is 0.9\n");
    row("-exclude_snps <file>", ": the file of snpids and rsids for SNPs to be excluded\n");
    row("-exclude_samples <file>",
        ": the set of sample ids of individuals to be excluded, sample file must be supplied\n");
    row("-Ne <n>", ": the effective population side, defaults to 11418\n");
    row("-sample <file>", ": the sample file for the set of individuals in the supplied genotype file\n");
    row("-strand <file>", ": the strand file\n\n");
    os << std::right;
}

void LSMatrixParameters::parameters_summary(std::ostream& os) const {
    os << "Command line output is:\n" << command_line << "\n\n";
    os << "FILE INPUTS" << "\n";
    label_60(os, "haplotype file: ") << haplotype_file.string() << "\n";
    label_60(os, "legend file: ") << legend_file << "\n";
    label_60(os, "genetic map file: ") << genetic_map_file << "\n";
    label_60(os, "genotype file: ") << genotype_file.string() << "\n";
    label_60(os, "output file: ") << output_file.string() << "\n";
    label_60(os, "tree file: ") << tree_file.string() << "\n";
    label_60(os, "strand file: ");
    if (seen("-strand")) os << strand_file;
    os << "\n";
    label_60(os, "SNP exclusion list: ");
    if (seen("-exclude_snps"))
        for (std::string const& f : exclude_snps_files) os << f << " ";
    os << "\n";
    label_60(os, "sample file: ");
    if (seen("-sample")) os << sample_file.string();
    os << "\n";
    label_60(os, "sample exclusion list: ");
    if (seen("-exclude_samples")) os << exclude_samples_file.string();
    os << "\n\n";

    os << "PARAMETER INPUTS" << "\n";
    print_count(os, "buffer: ", buffer);
    print_count(os, "call threshold: ", call_thresh);
    print_count(os, "lower: ", lower);
    print_count(os, "upper: ", upper);
    print_count(os, "Ne: ", Ne);
    print_count(os, "theta: ", theta);
    os << "\n";
}

std::pair<int, int> chunk_individuals(int i, int n, int N) {
    auto const bound = [&](int k) { return static_cast<int>(static_cast<long long>(N) * k / n); };
    return {bound(i - 1), bound(i)};
}

bool is_chunk_run(LSMatrixParameters const& parameters) { return parameters.seen("-chunk"); }
bool is_merge_run(LSMatrixParameters const& parameters) { return parameters.seen("-merge"); }

void check_split_flags(LSMatrixParameters const& parameters) {
    bool const chunk = is_chunk_run(parameters), merge = is_merge_run(parameters);
    if (chunk && merge) throw run_error("ERROR!!! -chunk and -merge cannot be given together.");
    if (chunk && (parameters.chunk_count < 1 || parameters.chunk_index < 1 ||
                  parameters.chunk_index > parameters.chunk_count))
        throw run_error("ERROR!!! -chunk " + std::to_string(parameters.chunk_index) + " " +
                        std::to_string(parameters.chunk_count) + ": the chunk must be between 1 and " +
                        std::to_string(parameters.chunk_count) + " and there must be at least one chunk.");
    if (merge && parameters.merge_count < 1)
        throw run_error("ERROR!!! -merge " + std::to_string(parameters.merge_count) +
                        ": the number of chunks must be at least 1.");
}
