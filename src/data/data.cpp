#include "data/data.h"

#include <iostream>

#include "io/output_file.h"
#include "io/text_stream.h"

data::data(LSMatrixParameters const& p) {
    parameters = p;
    // -1 is the value that means "-int" did not give this bound.
    if (parameters.lower == -1.0) parameters.lower = 0.0;
    if (parameters.upper == -1.0) parameters.upper = 1e12;
    std::cout.clear();

    read_genetic_map();
    read_haplotype_data();
    read_genotype_data();
    read_strand_data();
    read_exclusion_list();

    int const removed = remove_excluded_snps();
    std::cout << "   " << removed << " SNPs removed." << std::endl;

    setup();
    if (parameters.seen("-exclude_samples")) apply_sample_exclusions();
    write_aux_file();
}

int data::remove_excluded_snps() {
    int removed = 0;
    for (std::string const& id : excluded_snp_ids) {
        for (auto it = snps.begin(); it != snps.end(); ++it) {
            if (it->second.snp_id == id || it->second.rs_id == id) {
                snps.erase(it);
                ++removed;
                break;
            }
        }
    }
    return removed;
}

void data::refuse_compressed(std::string const& file) const {
    if (parameters.strict && starts_with_gzip_magic(file)) throw badfilename(file, gzip_in_plain_input);
}

void data::write_aux_file() const {
    output_file aux(parameters.aux_filename, output_file::mode::truncate, false);
    if (!aux.is_open()) {
        // Only a warning by default; a pipeline run asked to stop on every failure.
        if (parameters.strict) throw badfilename(parameters.aux_filename, "can't write aux file.");
        std::cout << std::endl << "Warning can't write aux file: " << parameters.aux_filename << std::endl;
        return;
    }
    std::cout << std::endl << "writing .aux file: " << parameters.aux_filename << std::endl << std::endl;
    parameters.parameters_summary(aux.stream());
    aux.finish();
}
