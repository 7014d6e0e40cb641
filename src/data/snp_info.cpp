// The per-SNP summary file written with -snp_info.
#include <iostream>
#include <string>

#include "data/data.h"
#include "io/output_file.h"

void data::output_snp_info() const {
    std::string const file = parameters.output_file.string() + ".snp_info.txt";
    std::cout << "Outputing snp information to file " << file << " ... " << std::flush;
    output_file file_out(file, output_file::mode::truncate, false);
    if (!file_out.is_open()) throw badfilename(parameters.output_file.string() + "snp_info.txt", "can't open file");
    std::ostream& out = file_out.stream();

    out << std::fixed;
    for (auto const& entry : snps) {
        snp const& s = entry.second;
        int counts[4] = {0, 0, 0, 0};
        double sum = 0.0, called = 0.0;
        for (std::size_t i = 0; i < s.genotypes.size(); ++i) {
            int const code = s.genotypes[i];
            if (code >= 0 && code <= 3) ++counts[code];
            if (code != 3) {
                sum += code;
                called += 1.0;
            }
        }
        out << s.snp_id << ' ' << s.rs_id << ' ' << entry.first << ' ' << s.hap_frequency << ' ' << s.strand << ' ';
        for (int count : counts) out << count << ' ';
        out << 0.5 * sum / called << ' ';
        for (std::size_t i = 0; i < s.genotypes.size(); ++i) out << static_cast<int>(s.genotypes[i]) << ' ';
        out << '\n';
    }
    file_out.finish();
    std::cout << "done" << std::endl;
}
