// Run settings: the command line of a run and everything derived from it.
#pragma once

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/path.hpp>

// Polymorphic base of the run settings: the flags seen on the command line,
// the aux file name and the rules that process_parameters checks.
class Parameters {
public:
    Parameters();
    virtual ~Parameters();

    std::set<std::string> flags_seen;     // every argument starting with "-", as typed
    std::string aux_filename;             // "aux1" until the driver sets "<output>.aux"
    std::vector<std::string> required_flags;
    std::map<std::string, std::vector<std::string>> flag_dependencies;

    virtual void parameters_summary(std::ostream& os) const = 0;
    virtual void parameters_help(std::ostream& os) const = 0;
    virtual void reset_parameters() = 0;

    bool seen(std::string const& flag) const { return flags_seen.count(flag) != 0; }
};

class LSMatrixParameters : public Parameters {
public:
    LSMatrixParameters();
    LSMatrixParameters(LSMatrixParameters const&) = default;
    LSMatrixParameters& operator=(LSMatrixParameters const&) = default;
    ~LSMatrixParameters() override;

    boost::filesystem::path tree_filename;
    std::string command_line;
    double buffer;
    double call_thresh;
    bool tavlo_input;
    bool detail;
    std::vector<std::string> exclude_snps_files;
    boost::filesystem::path exclude_samples_file;
    boost::filesystem::path genotype_file;
    boost::filesystem::path haplotype_file;
    std::string legend_file;
    double lower;
    std::string genetic_map_file;
    double Ne;
    int num_individuals;
    boost::filesystem::path output_dir;
    boost::filesystem::path output_file;
    bool print_matrix;
    boost::filesystem::path sample_file;
    std::string strand_file;
    double theta;
    boost::filesystem::path tree_file;
    double upper;
    // Worker threads for the per-individual work; results do not depend on it.
    int threads;
    // "-chunk <i> <n>": run only the i-th of n slices of the individuals (0 0 when not given).
    int chunk_index;
    int chunk_count;
    // "-merge <n>": combine the partial results of n chunk runs (0 when not given).
    int merge_count;
    bool strict;    // "-strict": every failure ends with a non-zero status
    bool gpu;       // "-gpu": run the passes on the GPU engine
    bool pardo_gz;  // "-pardo_gz": write name.pardo.gz instead of name.pardo

    void process_parameters(int argc, char** argv);
    void parameters_summary(std::ostream& os) const override;
    void parameters_help(std::ostream& os) const override;
    void reset_parameters() override;

private:
    std::string value_after(int argc, char** argv, int i, int offset);
    std::string number_after(int argc, char** argv, int i, int offset, bool integer);
    // -strict: unknown flags and bad numbers are errors (FlagException, BadInputValueException).
    void check_strict(int argc, char** argv) const;

    std::set<int> value_positions_;  // argument indices taken as a flag's value
    // Flag -> the text of its (last) numeric value, and whether it must be whole.
    std::map<std::string, std::pair<std::string, bool>> number_texts_;
};

// Thrown by "-help".
class HelpException {
public:
    static const std::string m_what;
};

// A flag the run cannot go on with: the flag, then the full message to print.
class FlagException {
public:
    static const std::string m_message;
    FlagException(std::string flag, std::string message)
        : flag(std::move(flag)), message(std::move(message)) {}
    std::string flag;
    std::string message;
};

// A required flag that is absent, or a value flag with no value after it.
class MissingFlagException : public FlagException {
public:
    static const std::string m_message;
    using FlagException::FlagException;
};

// Under -strict: a value that is not a number, or one that makes the results meaningless.
class BadInputValueException : public FlagException {
public:
    static const std::string m_message;
    using FlagException::FlagException;
};

// Split runs: "-chunk i n" and "-merge n". check_split_flags throws run_error
// for "-chunk" with i outside 1..n, n < 1, "-merge" with n < 1, or both
// flags together.
bool is_chunk_run(LSMatrixParameters const& parameters);
bool is_merge_run(LSMatrixParameters const& parameters);
void check_split_flags(LSMatrixParameters const& parameters);

// Individuals [first, last) of chunk i (1-based) of n among N ("-chunk i n"):
// contiguous slices whose sizes differ by at most one.
std::pair<int, int> chunk_individuals(int i, int n, int N);
