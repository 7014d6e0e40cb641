// Lists of SNP identifiers that the analysis must not use.
#include <fstream>
#include <iostream>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "data/data.h"

void data::read_exclusion_list() {
    if (!parameters.seen("-exclude_snps")) {
        std::cout << "WARNING!! No exclusion list given, so all SNPs will be used for inference." << std::endl
                  << std::endl;
        return;
    }
    excluded_snp_ids.clear();
    std::cout << std::endl;
    for (std::string const& name : parameters.exclude_snps_files) {
        boost::filesystem::path const path(name);
        boost::system::error_code ec;
        if (!boost::filesystem::exists(path, ec)) {
            // Skipped silently by default; under -strict a list that was asked for must be used.
            if (parameters.strict) throw badfilename(name, "no such exclusion list file.");
            continue;
        }
        std::cout << "Reading snps exclusion list " << name << std::endl;
        std::ifstream in(path.string());
        if (!in.is_open()) {
            if (parameters.strict) throw badfilename(name, "can't open exclusion list file.");
            std::cout << "Warning: can't open exclusion list file: " << name << std::endl;
            std::cout << "No SNPs excluded" << std::endl;
            return;
        }
        check_whole_file(name, false, true);
        std::cout << " -" << path.string() << "[" << std::flush;
        std::string id;
        int count = 0;
        while (in >> id) {
            excluded_snp_ids.insert(id);
            ++count;
        }
        std::cout << count << " SNP ids read in]" << std::endl;
    }
    std::cout << "In total " << excluded_snp_ids.size() << " unique SNP ID's read in" << std::endl;
}
