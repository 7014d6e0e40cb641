// The input store: everything a run reads, built by the constructor.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "io/badfilename.h"
#include "io/input_check.h"
#include "data/snp.h"
#include "params/parameters.h"

class data {
public:
    data() = default;
    // The whole input stage; throws badfilename on fatal input errors.
    explicit data(LSMatrixParameters const& p);
    data(data const&) = default;
    data& operator=(data const&) = default;
    data(data&&) = default;
    data& operator=(data&&) = default;
    virtual ~data() = default;

    double theta = 0.0;
    LSMatrixParameters parameters;
    std::vector<double> map_genetic;
    std::vector<double> map_positions;
    std::set<std::string> excluded_snp_ids;
    std::map<std::string, int> sample_index;
    std::vector<std::string> excluded_sample_ids;
    int n_haplotypes = -1;
    int n_individuals = -1;
    // The genotype rows of every SNP hold individuals first_held,
    // first_held + 1, ...: all of them, or only a split run's slice.
    int first_held = 0;
    std::map<double, snp> snps;
    std::vector<std::vector<double>> mutation_matrix;

    void read_genetic_map();
    void read_haplotype_data();
    void read_genotype_data();
    void read_strand_data();
    void read_exclusion_list();
    void setup();
    void apply_sample_exclusions();
    void read_sample_file();
    void read_sample_exclusion_file();
    void set_switch_rates();
    void set_mutation_matrix(int const& n);
    void output_snp_info() const;

    // Removes, for each excluded identifier, the first record carrying it;
    // returns how many records were removed.
    int remove_excluded_snps();
    void write_aux_file() const;
    // The individuals [first, last) of N whose genotypes the store keeps: a
    // chunk run only its slice and a merge run none, unless the SNP
    // information file (every individual's calls) or sample exclusions (which
    // renumber the individuals after reading) need them all.
    std::pair<int, int> held_individuals(int N) const;
    // Under -strict: the checks of io/input_check.h on an input file that has
    // opened (decompressed: it is read through the gzip decompressor) and on
    // each of its lines. They throw badfilename naming the file.
    void check_whole_file(std::string const& file, bool decompressed = false, bool may_be_empty = false) const;
    void check_line(std::string const& file, std::string const& line, long line_number,
                    line_layout const& layout) const;
    // Under -strict, a -sample file given without -exclude_samples is still
    // checked, without a word on the console for a good one.
    void check_sample_file_quietly();
    // Reads the sample file into sample_index and checks its count.
    void read_sample_index();
};
