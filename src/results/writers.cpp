#include "results/writers.h"

#include <algorithm>
#include <map>
#include <memory>

#include "io/badfilename.h"
#include "io/gzip_member.h"
#include "io/number_text.h"
#include "io/output_file.h"
#include "parallel/parallel.h"

namespace {

// Bytes of records one writer thread holds at a time, and the text it
// gathers before writing it out.
constexpr std::size_t record_block_bytes = 8u << 20;
constexpr std::size_t text_block_bytes = 1u << 20;

// Positions grouped by file name, each group ascending.
std::vector<std::vector<int>> group_by_name(std::vector<output_position> const& positions) {
    std::vector<std::vector<int>> groups;
    std::map<std::string, std::size_t> by_name;
    for (std::size_t p = 0; p < positions.size(); ++p) {
        auto const found = by_name.emplace(positions[p].name, groups.size());
        if (found.second) groups.emplace_back();
        groups[found.first->second].push_back(static_cast<int>(p));
    }
    return groups;
}

// Level of the compressed pardo files: the fastest, so that compression adds
// little to the run (about 2.6x smaller on typical results; level 6 gives 3x
// at twice the run time).
constexpr int pardo_gzip_level = 1;

// Writes text blocks to a file as they are, or each as a gzip member. With
// several compressing threads, that many blocks are gathered and compressed
// at once, then written in order: memory stays at two blocks per thread.
class block_output {
public:
    block_output(std::string const& path, bool gzip, int compressing_threads)
        : file_(path, output_file::mode::truncate, false) {
        if (!gzip) return;
        for (int t = 0; t < std::max(1, compressing_threads); ++t) {
            compressors_.emplace_back(new gzip_compressor(pardo_gzip_level));
            blocks_.emplace_back();
            compressed_.emplace_back();
        }
    }
    bool is_open() const { return file_.is_open(); }
    void require_open() const { file_.require_open(); }
    void write(char const* text, std::size_t size) {
        if (compressors_.empty()) return file_.write(text, size);
        if (size == 0) return;
        blocks_[pending_++].assign(text, size);
        if (pending_ == blocks_.size()) flush();
    }
    void finish() {
        flush();
        file_.finish();
    }

private:
    void flush() {
        if (pending_ == 0) return;
        auto compress = [&](int t) {
            compressed_[t].clear();
            compressors_[t]->append_member(compressed_[t], blocks_[t].data(), blocks_[t].size());
        };
        if (pending_ == 1) compress(0);
        else run_workers(static_cast<int>(pending_), compress);
        for (std::size_t t = 0; t < pending_; ++t) file_.write(compressed_[t]);
        pending_ = 0;
    }

    output_file file_;
    std::vector<std::unique_ptr<gzip_compressor>> compressors_;
    std::vector<std::string> blocks_, compressed_;
    std::size_t pending_ = 0;
};

void write_pardo_file(result_file_reader const& records, result_layout const& layout, output_position const& position,
                      int p, bool gzip, int compressing_threads, bool strict) {
    block_output out(position.name + (gzip ? ".pardo.gz" : ".pardo"), gzip, compressing_threads);
    if (!out.is_open()) {
        if (strict) out.require_open();
        return;  // not reported; the run goes on
    }
    int const N = records.count();
    std::size_t const B = position.branch_ids.size();
    std::size_t const row_bytes = 2 * sizeof(double) * static_cast<std::size_t>(std::max(N, 1));
    std::size_t const per_block = std::max<std::size_t>(1, record_block_bytes / row_bytes);
    std::vector<double> values(2 * std::min(per_block, std::max<std::size_t>(B, 1)) * static_cast<std::size_t>(N));
    // The text goes straight into one block: a line's start and an
    // individual's three numbers each take well under 256 bytes (general_text
    // asks for 64).
    std::vector<char> block(text_block_bytes + 256);
    char* const start = block.data();
    char* text = start;
    for (std::size_t b0 = 0; b0 < B; b0 += per_block) {
        std::size_t const nb = std::min(per_block, B - b0);
        for (int n = 0; n < N; ++n)
            records.read(records.first() + n, layout.branches_at(p) + 2 * b0, 2 * nb, values.data() + 2 * nb * n);
        for (std::size_t b = 0; b < nb; ++b) {
            if (text - start >= static_cast<std::ptrdiff_t>(text_block_bytes)) {  // lines without individuals
                out.write(start, text - start);
                text = start;
            }
            text = std::to_chars(text, text + 16, position.branch_ids[b0 + b]).ptr;
            *text++ = ' ';
            text = general_text(text, position.branch_lengths[b0 + b], 6);
            *text++ = ' ';
            text = general_text(text, position.t, 6);
            text = std::copy_n(" A T ", 5, text);
            for (int n = 0; n < N; ++n) {
                double const both = values[2 * nb * n + 2 * b], one = values[2 * nb * n + 2 * b + 1];
                text = general_text(text, both, 6);
                *text++ = ' ';
                text = general_text(text, one, 6);
                *text++ = ' ';
                text = general_text(text, 1 - both - one, 6);
                *text++ = ' ';
                if (text - start >= static_cast<std::ptrdiff_t>(text_block_bytes)) {
                    out.write(start, text - start);
                    text = start;
                }
            }
            *text++ = '\n';
        }
    }
    out.write(start, text - start);
    out.finish();
}

void write_full_matrix_file(result_file_reader const& records, result_layout const& layout,
                            std::string const& file_name, std::vector<int> const& group, bool strict) {
    output_file out(file_name, output_file::mode::truncate, false);
    if (!out.is_open()) {
        if (strict) out.require_open();
        return;  // not reported; the run goes on
    }
    std::vector<double> pairs(layout.pair_size());
    std::string text;
    for (int n = records.first(); n < records.first() + records.count(); ++n) {
        for (int p : group) {
            records.read(n, layout.pairs_at(p), pairs.size(), pairs.data());
            append_full_matrix_block(text, pairs.data(), layout.K);
            if (text.size() >= text_block_bytes) {
                out.write(text);
                text.clear();
            }
        }
    }
    out.write(text);
    out.finish();
}

}  // namespace

std::vector<std::vector<double>> sum_haplotype_probabilities(result_file_reader const& records,
                                                             result_layout const& layout, int threads) {
    int const K = layout.K;
    std::vector<std::vector<double>> sums(layout.positions(), std::vector<double>(K, 0.0));
    parallel_for(sums.size(), threads, [&](std::size_t p) {
        std::vector<double> m(K);
        std::vector<double>& sum = sums[p];
        for (int n = records.first(); n < records.first() + records.count(); ++n) {
            records.read(n, layout.haplotypes_at(static_cast<int>(p)), K, m.data());
            for (int k = 0; k < K; ++k) sum[k] += m[k];
        }
    });
    return sums;
}

void write_full_matrix_files(result_file_reader const& records, result_layout const& layout,
                             std::vector<output_position> const& positions, int threads, bool strict) {
    if (records.count() == 0) return;
    auto const groups = group_by_name(positions);
    parallel_for(groups.size(), threads, [&](std::size_t g) {
        write_full_matrix_file(records, layout, positions[groups[g].front()].name + ".full_matrix", groups[g], strict);
    });
}

void write_pardo_files(result_file_reader const& records, result_layout const& layout,
                       std::vector<output_position> const& positions, int threads, bool gzip, bool strict) {
    // A later position with the same name would overwrite the file: write only
    // the last one of each name, and the files can then be written at once.
    // With fewer files than threads, the spare threads compress blocks of the
    // files being written.
    auto const groups = group_by_name(positions);
    int const per_file = std::max<int>(1, threads / std::max<int>(1, static_cast<int>(groups.size())));
    parallel_for(groups.size(), threads, [&](std::size_t g) {
        int const p = groups[g].back();
        write_pardo_file(records, layout, positions[p], p, gzip, per_file, strict);
    });
}

void write_matrix_lines(output_file& out, std::vector<matrix_line> const& lines) {
    std::string line;
    int precision = 6;  // the stream's default until the first sum is written
    for (matrix_line const& m : lines) {
        line.clear();
        // The precision set for the sums stays set for the next line's
        // position (with no haplotypes no sum is written and it never changes).
        append_number(line, m.t, precision);
        line += ' ';
        std::vector<double> const& sums = *m.sums;
        for (std::size_t k = 0; k < sums.size(); ++k) {
            precision = 10;
            append_number(line, sums[k], precision);
            line += k + 1 < sums.size() ? ", " : ";";
        }
        line += '\n';
        out.write(line);
    }
}

void write_details_file(std::string const& file_name, std::vector<std::vector<double>> const& values) {
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
