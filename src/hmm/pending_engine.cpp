// Placeholders for the engine parts that are not built yet.
#include "hmm/hmm.h"

HMM::matrix_data::~matrix_data() = default;
void HMM::read_tree(std::string const& text, std::map<int, node>& tree, int const& leaves) {
    parse_tree(text, tree, leaves);
}
void HMM::print_matrix(std::map<double, std::string>&, LSMatrixParameters const&) {}
void HMM::print_matrix_private(std::map<double, matrix_data>&, boost::filesystem::path const&, bool const&,
                               std::map<double, std::vector<std::vector<double>>>&) {}
void HMM::output_details(std::string const&, std::vector<std::vector<double>> const&) {}
void HMM::output_pardo(std::map<double, matrix_data>&) {}
