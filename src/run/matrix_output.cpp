// The run's own output routines: the matrix file from the positions' sums,
// details files, and the pardo files through the result writers.
#include <iostream>

#include "io/badfilename.h"
#include "io/number_text.h"
#include "io/output_file.h"
#include "results/writers.h"
#include "run/hmm.h"

void HMM::output_pardo(result_file_reader const& records, result_layout const& layout,
                       std::vector<output_position> const& positions, int threads, bool gzip, bool strict) {
    write_pardo_files(records, layout, positions, threads, gzip, strict);
}

void HMM::print_matrix_private(std::map<double, matrix_data>& positions, boost::filesystem::path const& output,
                               bool strict) {
    bool const gzip = output.extension().string() == ".gz";
    std::cout << (gzip ? "\n\nwriting matrix file in gzip mode ... " : "\n\nwriting matrix file ... ") << std::flush;
    output_file out(output);
    // An unopenable gzip file is not reported (its lines are lost), except
    // under -strict.
    if (!out.is_open() && !gzip) throw badfilename(output.string(), "can't open file.");
    if (strict) out.require_open();

    std::string line;
    int precision = 6;  // the stream's default until the first sum is written
    for (auto const& entry : positions) {
        line.clear();
        // The first line's position is written at the stream's default
        // precision, later ones at 10 digits: the precision set for the sums
        // stays set for the next line's position (with no haplotypes no sum
        // is written and it never changes).
        append_number(line, entry.first, precision);
        line += ' ';
        std::vector<double> const& sums = entry.second.haplotype_sums;
        for (std::size_t k = 0; k < sums.size(); ++k) {
            precision = 10;
            append_number(line, sums[k], precision);
            line += k + 1 < sums.size() ? ", " : ";";
        }
        line += '\n';
        out.write(line);
    }
    out.finish();
    std::cout << "done" << std::endl;
}

void HMM::output_details(std::string const& file_name, std::vector<std::vector<double>> const& values) {
    output_file out(file_name);
    if (!out.is_open()) throw badfilename(file_name, "can't open file.");
    std::string text;
    for (auto const& row : values) {
        for (double v : row) {
            append_number(text, v, 6);
            text += ' ';
        }
        text += '\n';
    }
    out.write(text);
    out.finish();
}
