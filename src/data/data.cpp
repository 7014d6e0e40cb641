#include "data/data.h"

#include <algorithm>
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
    if (parameters.strict && removed > 0 && !std::any_of(snps.begin(), snps.end(), [](auto const& entry) {
            return entry.second.data_type == 2;
        })) {
        std::string lists;
        for (std::string const& name : parameters.exclude_snps_files) lists += (lists.empty() ? "" : " ") + name;
        throw badfilename(lists, "the SNP exclusion lists remove every genotyped SNP in the interval.");
    }

    setup();
    if (parameters.seen("-exclude_samples")) apply_sample_exclusions();
    check_sample_file_quietly();
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

void data::check_whole_file(std::string const& file, bool decompressed, bool may_be_empty) const {
    if (!parameters.strict) return;
    std::string const fault = whole_file_fault(file, decompressed, may_be_empty);
    if (!fault.empty()) throw badfilename(file, fault);
}

void data::check_line(std::string const& file, std::string const& line, long line_number,
                      line_layout const& layout) const {
    if (!parameters.strict) return;
    std::string const fault = line_fault(line, line_number, layout);
    if (!fault.empty()) throw badfilename(file, fault);
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
