// The run object: the loaded data store plus the haplotype-copying engine.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "data/data.h"
#include "engine/kernel.h"
#include "trees/tree.h"

class result_file_reader;
struct result_layout;
struct output_position;

class HMM : public data {
public:
    using node = tree_node;

    // Results of one tree position.
    struct matrix_data {
        std::string name;                     // "<output>.<position, fixed, 0 decimals>"
        std::vector<double> haplotype_sums;   // per haplotype, summed over individuals
        std::string tree;                     // tree text from the tree map
        std::map<int, node> nodes;            // parsed tree ("-tavlo_input" only)
        ~matrix_data();
    };

    HMM() = default;
    HMM& operator=(data const& loaded) {
        data::operator=(loaded);
        return *this;
    }
    // The driver hands over the freshly loaded store: its tables are moved, not copied.
    HMM& operator=(data&& loaded) {
        data::operator=(std::move(loaded));
        return *this;
    }

    // Full-storage passes: fill forward_probs / backward_probs of every SNP.
    void forward(int const& individual);
    void backward(int const& individual);

    // Without leaf_sets the nodes' leaf sets stay empty (children and branch
    // lengths are all the matrix run needs): O(K) per tree instead of O(K^2).
    void read_tree(std::string const& text, std::map<int, node>& tree, int const& leaves, bool leaf_sets = true);

    // Pair posterior at a position between (or at) two SNPs; out is resized to K(K+1)/2.
    void find_matrix_private(std::vector<double>& out, double const& rate, double const& left_distance,
                             double const& right_distance, std::vector<double> const& backward_right,
                             std::vector<double> const& forward_left);

    // The matrix run: every individual's passes and all result files; with
    // "-chunk" only a slice of the individuals and its partial results, with
    // "-merge" the result files from the chunks' partial results.
    void print_matrix(std::map<double, std::string>& trees, LSMatrixParameters const& parameters);
    // Writes the matrix file from the positions' haplotype sums. When strict, a
    // gzip matrix file that cannot be opened is a write_error, not lost lines.
    void print_matrix_private(std::map<double, matrix_data>& positions, boost::filesystem::path const& output,
                              bool strict);
    // One pardo file per distinct position name (the highest position of a
    // shared name wins), from the individuals' records. With gzip,
    // "name.pardo.gz" instead: a series of independently compressed blocks.
    // Files are written in parallel. A file that cannot be opened is skipped
    // quietly, or is a write_error when strict.
    void output_pardo(result_file_reader const& records, result_layout const& layout,
                      std::vector<output_position> const& positions, int threads, bool gzip, bool strict);
    // A details file: line k holds the values [k][0..N-1], each followed by a
    // blank. The matrix run never writes one (-detail adds no file).
    void output_details(std::string const& file_name, std::vector<std::vector<double>> const& values);

    // Draws the progress line (individuals done, individuals in all); set by
    // the driver. Nothing is drawn without it.
    std::function<void(int done, int total)> draw_progress;
};

// A SNP's reference alleles as the kernel takes them (0.0 / 1.0), into h (K values).
void alleles_as_doubles(snp const& s, std::vector<double>& h);

// The panel in the engine's compact form: alleles as 0/1 doubles, switch
// rates, positions, rates per base, the emission matrix by genotype column and
// every held individual's genotype codes. Built once per run.
hmm_kernel::Panel make_panel(data const& store);
// The same, taking the genotype codes over: each SNP's row is released once
// copied, so that the run holds the codes once, in the engine's layout.
hmm_kernel::Panel take_panel(data& store);

// Flanking SNPs, distances and rate of each tree position (ascending or not;
// each must lie within the SNP range).
std::vector<hmm_kernel::Flank> find_position_flanks(data const& store, std::vector<double> const& positions);

// Branch-sum layout of a parsed tree over K leaves (uses the nodes' children).
hmm_kernel::BranchLayout make_branch_layout(tree_nodes const& tree, int K);
