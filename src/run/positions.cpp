#include "run/positions.h"

#include <cstdio>
#include <iomanip>
#include <sstream>

#include "io/badfilename.h"
#include "io/output_file.h"

std::map<double, HMM::matrix_data> select_positions(HMM const& run, std::map<double, std::string> const& trees,
                                                    LSMatrixParameters const& parameters, bool remove_full_matrix) {
    std::map<double, HMM::matrix_data> positions;
    // A failure to open the .aux file is not reported; its lines are lost.
    output_file aux(parameters.aux_filename, output_file::mode::append);
    for (auto const& entry : trees) {
        double const t = entry.first;
        if (!run.snps.empty() && run.snps.begin()->first <= t && t <= run.snps.rbegin()->first) {
            HMM::matrix_data position;
            std::ostringstream name;
            name << parameters.output_file.string() << "." << std::fixed << std::setprecision(0) << t;
            position.name = name.str();
            position.haplotype_sums.assign(run.n_haplotypes > 0 ? run.n_haplotypes : 0, 0.0);
            position.tree = entry.second;
            if (remove_full_matrix) std::remove((position.name + ".full_matrix").c_str());
            positions.emplace(t, std::move(position));
        } else if (aux.is_open()) {
            aux.stream() << "position " << t << " ignored: no genotype or reference haplotype information" << "\n";
        }
    }
    aux.finish();
    // By default the passes then run for nothing and the matrix file is empty.
    if (parameters.strict && positions.empty()) {
        std::ostringstream range;
        if (!run.snps.empty()) range << " (" << run.snps.begin()->first << " to " << run.snps.rbegin()->first << ")";
        throw badfilename(parameters.tree_file.string(),
                          "no tree position lies between the first and the last SNP" + range.str() + ".");
    }
    return positions;
}

int parse_position_trees(HMM& run, std::map<double, HMM::matrix_data>& positions, std::vector<position_tree>& trees,
                         bool for_cpu_engine) {
    int const K = run.n_haplotypes;
    int failing = -1;
    bool const index_pairs = for_cpu_engine && hmm_kernel::pair_index_bytes(K, positions.size()) > 0;
    trees.clear();
    for (auto& entry : positions) {
        HMM::matrix_data& position = entry.second;
        // The per-branch sums work from the nodes' children: no leaf sets.
        run.read_tree(position.tree, position.nodes, K, false);
        position_tree tree;
        for (auto& n : position.nodes) {
            double const length = n.second.branch_length;
            if (length > 0) tree.marked.push_back(n.first);
            else if (length != 0 && failing < 0) failing = static_cast<int>(trees.size());
        }
        tree.layout = make_branch_layout(position.nodes, K);
        if (index_pairs) tree.layout.index_pairs();
        trees.push_back(std::move(tree));
    }
    return failing;
}

std::vector<output_position> describe_outputs(std::map<double, HMM::matrix_data> const& positions) {
    std::vector<output_position> outputs;
    for (auto const& entry : positions) {
        output_position out;
        out.t = entry.first;
        out.name = entry.second.name;
        for (auto const& n : entry.second.nodes) {
            if (n.second.branch_length > 0) {
                out.branch_ids.push_back(n.first);
                out.branch_lengths.push_back(n.second.branch_length);
            }
        }
        outputs.push_back(std::move(out));
    }
    return outputs;
}
