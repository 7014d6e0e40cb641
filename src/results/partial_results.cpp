#include "results/partial_results.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "io/badfilename.h"
#include "io/output_file.h"

namespace fs = boost::filesystem;

namespace {

std::string const index_title = "ketra partial results 2";

std::string hex64(std::uint64_t value) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::string describe_input(std::string const& path) {
    boost::system::error_code error;
    auto const size = fs::file_size(path, error);
    if (error) return path + " absent";
    auto const modified = fs::last_write_time(path, error);
    return path + " " + std::to_string(size) + " " + std::to_string(static_cast<long long>(modified));
}

std::string layout_text(result_layout const& layout) {
    std::ostringstream text;
    text << layout.K << " " << (layout.pair_matrices ? 1 : 0) << " " << layout.positions();
    for (int b : layout.branches) text << " " << b;
    return text.str();
}

std::string hex32(std::uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(value));
    return text;
}

std::string checksum_text(std::string const& text) { return hex32(extend_checksum(0, text.data(), text.size())); }

[[noreturn]] void refuse(std::string const& file, std::string const& cause) {
    throw run_error("Error reading file " + file + ": " + cause);
}

}  // namespace

std::string chunk_name(LSMatrixParameters const& parameters, int i, int n) {
    return parameters.output_file.string() + ".chunk" + std::to_string(i) + "of" + std::to_string(n);
}

std::string run_fingerprint(LSMatrixParameters const& parameters) {
    std::istringstream words(parameters.command_line);
    std::string word, text;
    words >> word;  // the program's own path
    while (words >> word) {
        int skip = word == "-chunk" ? 2 : (word == "-merge" || word == "-threads") ? 1 : 0;
        if (skip > 0) {
            while (skip-- > 0 && words >> word) {
            }
            continue;
        }
        text += word + " ";
    }
    text += "\n";
    std::vector<std::string> inputs = {parameters.haplotype_file.string(), parameters.legend_file,
                                       parameters.genetic_map_file,        parameters.genotype_file.string(),
                                       parameters.tree_file.string(),      parameters.tree_filename.string(),
                                       parameters.sample_file.string(),    parameters.exclude_samples_file.string(),
                                       parameters.strand_file};
    inputs.insert(inputs.end(), parameters.exclude_snps_files.begin(), parameters.exclude_snps_files.end());
    for (auto const& input : inputs)
        if (!input.empty() && input != "NULL") text += describe_input(input) + "\n";
    // FNV-1a, 64 bits.
    std::uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hex64(hash);
}

void write_chunk_index(LSMatrixParameters const& parameters, int N, std::pair<int, int> individuals,
                       result_layout const& layout, std::vector<result_part> const& parts, bool complete) {
    std::string const name = chunk_name(parameters, parameters.chunk_index, parameters.chunk_count) + ".part";
    output_file out(name, output_file::mode::truncate, false);
    if (!out.is_open()) throw badfilename(name, "can't open file.");
    std::ostringstream text;
    text << index_title << "\n"
         << "fingerprint " << run_fingerprint(parameters) << "\n"
         << "chunk " << parameters.chunk_index << " " << parameters.chunk_count << "\n"
         << "individuals " << N << " " << individuals.first << " " << individuals.second << "\n"
         << "layout " << layout_text(layout) << "\n"
         << "files " << parts.size() << "\n";
    for (auto const& part : parts) {
        text << fs::path(part.path).filename().string() << " " << part.individuals.size() << " " << hex32(part.checksum)
             << "\n";
        for (std::size_t r = 0; r < part.individuals.size(); ++r) text << (r ? " " : "") << part.individuals[r];
        text << "\n";
    }
    std::string const listed = text.str();
    text << "checksum " << checksum_text(listed) << "\n";
    if (complete) text << "complete\n";
    out.write(text.str());
    out.finish();
}

namespace {

// The whole line as whitespace-separated fields.
std::vector<std::string> fields_of(std::string const& line) {
    std::istringstream text(line);
    std::vector<std::string> fields;
    for (std::string field; text >> field;) fields.push_back(field);
    return fields;
}

// A whole decimal number in [low, high], or false.
bool whole_number(std::string const& text, long long low, long long high, long long& value) {
    if (text.empty() || text.size() > 19) return false;
    std::size_t at = text[0] == '-' ? 1 : 0;
    if (at == text.size()) return false;
    for (std::size_t c = at; c < text.size(); ++c)
        if (text[c] < '0' || text[c] > '9') return false;
    value = std::strtoll(text.c_str(), nullptr, 10);
    return value >= low && value <= high;
}

// One chunk's index, checked line by line; returns its record files.
std::vector<result_part> read_chunk_index(std::string const& name, int i, int n, int N, std::string const& fingerprint,
                                          result_layout const& layout) {
    std::string const rerun = " (run it again with -chunk " + std::to_string(i) + " " + std::to_string(n) + ")";
    std::ifstream in(name);
    if (!in.is_open())
        refuse(name, "partial results of chunk " + std::to_string(i) + " of " + std::to_string(n) + " are missing" + rerun + ".");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (lines.empty() || lines[0] != index_title) refuse(name, "not a partial results file.");
    if (lines.back() != "complete") refuse(name, "partial results are incomplete" + rerun + ".");
    std::string const damaged = "partial results are damaged" + rerun + ".";
    // The line before "complete" holds the checksum of all the lines above it.
    std::string listed;
    for (std::size_t l = 0; l + 2 < lines.size(); ++l) listed += lines[l] + "\n";
    if (lines.size() < 8 || lines[lines.size() - 2] != "checksum " + checksum_text(listed)) refuse(name, damaged);
    if (lines[1] != "fingerprint " + fingerprint)
        refuse(name, "partial results made by another command line or from other input files.");
    auto const chunk = fields_of(lines[2]);
    long long chunk_i = 0, chunk_n = 0;
    if (chunk.size() != 3 || chunk[0] != "chunk" || !whole_number(chunk[1], 0, 1 << 30, chunk_i) ||
        !whole_number(chunk[2], 0, 1 << 30, chunk_n))
        refuse(name, damaged);
    if (chunk_i != i || chunk_n != n)
        refuse(name, "partial results belong to chunk " + std::to_string(chunk_i) + " of " + std::to_string(chunk_n) +
                         ", not " + std::to_string(i) + " of " + std::to_string(n) + ".");
    auto const expected = chunk_individuals(i, n, N);
    if (lines[3] != "individuals " + std::to_string(N) + " " + std::to_string(expected.first) + " " +
                        std::to_string(expected.second))
        refuse(name, "partial results hold other individuals than this run's.");
    if (lines[4] != "layout " + layout_text(layout)) refuse(name, "partial results hold other positions or outputs.");

    // The record files: a line "<name> <records> <checksum>" and a line of
    // their individuals each; together every individual of the chunk once.
    auto const listing = fields_of(lines[5]);
    long long files = 0;
    if (listing.size() != 2 || listing[0] != "files" || !whole_number(listing[1], 0, 1 << 30, files) ||
        static_cast<std::size_t>(files) * 2 + 8 != lines.size())
        refuse(name, damaged);
    std::string const own_prefix = fs::path(name).filename().string() + ".";
    std::vector<char> seen(static_cast<std::size_t>(expected.second - expected.first), 0);
    std::size_t const record_bytes = layout.record_size() * sizeof(double);
    std::vector<result_part> parts;
    std::set<std::string> names;  // a file listed twice would lend its records to two individuals
    for (long long f = 0; f < files; ++f) {
        auto const head = fields_of(lines[6 + 2 * f]);
        auto const individuals = fields_of(lines[7 + 2 * f]);
        long long count = 0, checksum = 0;
        // Only this chunk's own record files, beside its index.
        if (head.size() != 3 || head[0].compare(0, own_prefix.size(), own_prefix) != 0 ||
            head[0].size() == own_prefix.size() || head[0].find('/') != std::string::npos ||
            !whole_number(head[1], 0, static_cast<long long>(seen.size()), count) ||
            head[2].size() != 8 || head[2].find_first_not_of("0123456789abcdef") != std::string::npos ||
            individuals.size() != static_cast<std::size_t>(count) || !names.insert(head[0]).second)
            refuse(name, damaged);
        checksum = std::strtoll(head[2].c_str(), nullptr, 16);
        result_part part{(fs::path(name).parent_path() / head[0]).string(), {}, static_cast<std::uint32_t>(checksum)};
        for (auto const& field : individuals) {
            long long individual = 0;
            if (!whole_number(field, expected.first, expected.second - 1, individual) ||
                seen[static_cast<std::size_t>(individual - expected.first)]++)
                refuse(name, damaged);
            part.individuals.push_back(static_cast<int>(individual));
        }
        boost::system::error_code error;
        auto const size = fs::file_size(part.path, error);
        if (error || size != part.individuals.size() * record_bytes)
            refuse(part.path, "partial results are incomplete" + rerun + ".");
        if (file_checksum(part.path) != part.checksum) refuse(part.path, damaged);
        parts.push_back(std::move(part));
    }
    if (std::find(seen.begin(), seen.end(), 0) != seen.end()) refuse(name, damaged);
    return parts;
}

}  // namespace

std::vector<result_part> read_chunk_indexes(LSMatrixParameters const& parameters, int N, result_layout const& layout) {
    int const n = parameters.merge_count;
    std::string const fingerprint = run_fingerprint(parameters);
    std::vector<result_part> all;
    for (int i = 1; i <= n; ++i) {
        auto parts = read_chunk_index(chunk_name(parameters, i, n) + ".part", i, n, N, fingerprint, layout);
        all.insert(all.end(), parts.begin(), parts.end());
    }
    return all;
}
