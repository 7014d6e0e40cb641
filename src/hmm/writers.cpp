// The run's output files: matrix file, details, pardo branch files, and the
// text of one .full_matrix block.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>
#include <iostream>

#include "io/text_stream.h"
#include "hmm/hmm.h"
#include "hmm/workers.h"
#include "io/number_text.h"
#include "hmm/writers.h"

void HMM::print_matrix_private(std::map<double, matrix_data>& positions, boost::filesystem::path const& output,
                               bool const& detail, std::map<double, std::vector<std::vector<double>>>& details) {
    std::unique_ptr<std::ostream> out;
    if (is_gzip_path(output)) {
        std::cout << "\n\nwriting matrix file in gzip mode ... " << std::flush;
        out = open_text_output(output);  // an unopenable gzip file is not reported; its lines are lost
    } else {
        std::cout << "\n\nwriting matrix file ... " << std::flush;
        out = open_text_output(output);
        if (!out) throw badfilename(output.string(), "can't open file.");
    }

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
        if (out) out->write(line.data(), static_cast<std::streamsize>(line.size()));
    }

    // With "-detail" the details file is looked up once, with the end of the
    // position map standing in for a position; that names no position, so the
    // accumulated details are never written. Users' pipelines rely on the
    // file set staying as it is, so output_details is not called here.
    (void)detail;
    (void)details;
    out.reset();  // completes the gzip stream
    std::cout << "done" << std::endl;
}

void HMM::output_details(std::string const& file_name, std::vector<std::vector<double>> const& values) {
    std::ofstream out(file_name, std::ios::out | std::ios::trunc);
    if (!out.is_open()) throw badfilename(file_name, "can't open file.");
    for (auto const& row : values) {
        for (double v : row) out << v << " ";
        out << "\n";
    }
}

namespace {

// Writes one position's pardo file: a line per marked branch.
void write_pardo_file(double t, HMM::matrix_data const& position) {
    std::ofstream out(position.name + ".pardo", std::ios::out | std::ios::trunc);
    if (!out.is_open()) return;  // not reported; the run goes on
    std::string line;
    for (auto const& branch : position.branch_genotypes) {
        line.clear();
        append_number(line, branch.first);
        line += ' ';
        auto const found = position.nodes.find(branch.first);
        append_number(line, found != position.nodes.end() ? found->second.branch_length : 0.0, 6);
        line += ' ';
        append_number(line, t, 6);
        line += " A T ";
        for (HMM::branch_row const& row : branch.second) {
            append_number(line, row[0], 6);
            line += ' ';
            append_number(line, row[1], 6);
            line += ' ';
            append_number(line, 1 - row[0] - row[1], 6);
            line += ' ';
        }
        line += '\n';
        out.write(line.data(), static_cast<std::streamsize>(line.size()));
    }
}

}  // namespace

void HMM::output_pardo(std::map<double, matrix_data>& positions) {
    // Positions whose names coincide write the same file, and the higher
    // position's text is what remains: write only that one. The files are
    // then distinct and can be written in parallel (the text of a large run
    // is gigabytes of numbers).
    std::vector<std::pair<double, matrix_data const*>> files;
    std::map<std::string, std::size_t> by_name;
    for (auto const& entry : positions) {
        auto const found = by_name.find(entry.second.name);
        if (found != by_name.end()) {
            files[found->second] = {entry.first, &entry.second};
        } else {
            by_name.emplace(entry.second.name, files.size());
            files.emplace_back(entry.first, &entry.second);
        }
    }
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i; (i = next.fetch_add(1)) < files.size();) write_pardo_file(files[i].first, *files[i].second);
    };
    run_workers(std::max(1, std::min<int>(parameters.threads, static_cast<int>(files.size()))), worker);
}

void append_full_matrix_block(std::string& out, double const* pair_posterior, int K) {
    std::size_t index = 0;
    for (int i = 0; i < K; ++i) {
        for (int j = 0; j <= i; ++j) {
            append_number(out, pair_posterior[index++], 6);
            out += ' ';
        }
        out += '\n';
    }
    out += "\n\n";
}
