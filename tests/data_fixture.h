// Shared set-up for the input-stage tests: parameters from a command line and
// a store whose readers can be run one at a time on files in a temp dir.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "data/data.h"
#include "params/parameters.h"
#include "support/test_support.h"

namespace ketra_test {

// Parses "ketra" + args. The required flags get placeholder values inside dir
// unless args give them.
inline LSMatrixParameters parse_parameters(TempDir const& dir, std::vector<std::string> args) {
    std::vector<std::pair<std::string, std::string>> const required = {
        {"-h", "ref.hap"}, {"-l", "ref.legend"}, {"-m", "map.txt"},
        {"-tree_file", "trees.txt"}, {"-g", "study.gen"}, {"-o", "run"}};
    for (auto const& r : required)
        if (std::find(args.begin(), args.end(), r.first) == args.end())
            args.insert(args.end(), {r.first, dir.file(r.second)});
    args.insert(args.begin(), "ketra");
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(&s[0]);
    LSMatrixParameters p;
    p.process_parameters(static_cast<int>(argv.size()), argv.data());
    p.aux_filename = p.output_file.string() + ".aux";
    return p;
}

// A store holding the parameters with the interval defaults applied, as the
// constructor does before it runs the readers.
inline data empty_store(LSMatrixParameters const& p) {
    data d;
    d.parameters = p;
    if (d.parameters.lower == -1.0) d.parameters.lower = 0.0;
    if (d.parameters.upper == -1.0) d.parameters.upper = 1e12;
    return d;
}

inline data store_for(TempDir const& dir, std::vector<std::string> args = {}) {
    return empty_store(parse_parameters(dir, std::move(args)));
}

// Runs one reader with the console captured; returns what it printed.
template <class F>
std::string quietly(F&& f) {
    CoutCapture capture;
    f();
    return capture.text();
}

// The message of the badfilename that f throws, or "" when it throws none.
template <class F>
std::string error_of(F&& f) {
    CoutCapture capture;
    try {
        f();
    } catch (badfilename const& e) {
        return e.what();
    }
    return "";
}

inline bool contains(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// The fields of a record that the readers and the set-up step fill, on one
// line: ids, legend alleles, haplotype alleles, genotype alleles, strand,
// data type, genotype calls.
inline std::string describe(snp const& s) {
    std::ostringstream os;
    os << s.rs_id << ' ' << s.snp_id << ' ' << s.legend_allele_0 << '/' << s.legend_allele_1 << ' ';
    for (int a : s.haplotype_alleles) os << a;
    os << ' ' << s.genotype_allele_a << '/' << s.genotype_allele_b << ' ' << s.strand << ' ' << s.data_type << ' ';
    for (int g : s.genotypes) os << g;
    return os.str();
}

// A record as the panel reader leaves it, for tests that start later in the pipeline.
inline snp panel_snp(std::string const& rs, std::string const& a0, std::string const& a1, double hap_frequency = 0.5) {
    snp s;
    s.rs_id = rs;
    s.snp_id = "---";
    s.legend_allele_0 = a0;
    s.legend_allele_1 = a1;
    s.hap_frequency = hap_frequency;
    s.haplotype_alleles = {0, 1};
    s.genotype_allele_a = s.genotype_allele_b = s.strand = "*";
    s.data_type = 1;
    return s;
}

}  // namespace ketra_test
