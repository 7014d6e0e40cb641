// Placeholders for the input-stage readers that are not built yet.
#include "data/data.h"

void data::read_genetic_map() {}
void data::read_haplotype_data() {}
void data::read_genotype_data() {}
void data::read_strand_data() {}
void data::read_exclusion_list() {}
void data::setup() {}
void data::apply_sample_exclusions() {}
void data::read_sample_file() {}
void data::read_sample_exclusion_file() {}
void data::set_switch_rates() {}
void data::set_mutation_matrix(int const&) {}
void data::output_snp_info() const {}
std::string flip(std::string allele) { return allele; }
