#include "hmm/partial_results.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "io/badfilename.h"
#include "io/output_file.h"

namespace fs = boost::filesystem;

namespace {

std::string const index_title = "ketra partial results 1";

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

[[noreturn]] void refuse(std::string const& file, std::string const& cause) {
    throw run_error("Error reading file " + file + ": " + cause);
}

}  // namespace

bool is_chunk_run(LSMatrixParameters const& parameters) { return parameters.seen("-chunk"); }
bool is_merge_run(LSMatrixParameters const& parameters) { return parameters.seen("-merge"); }

void check_split_flags(LSMatrixParameters const& parameters) {
    bool const chunk = is_chunk_run(parameters), merge = is_merge_run(parameters);
    if (chunk && merge) throw run_error("ERROR!!! -chunk and -merge cannot be given together.");
    if (chunk && (parameters.chunk_count < 1 || parameters.chunk_index < 1 ||
                  parameters.chunk_index > parameters.chunk_count))
        throw run_error("ERROR!!! -chunk " + std::to_string(parameters.chunk_index) + " " +
                        std::to_string(parameters.chunk_count) + ": the chunk must be between 1 and " +
                        std::to_string(parameters.chunk_count) + " and there must be at least one chunk.");
    if (merge && parameters.merge_count < 1)
        throw run_error("ERROR!!! -merge " + std::to_string(parameters.merge_count) +
                        ": the number of chunks must be at least 1.");
}

std::pair<int, int> chunk_individuals(int i, int n, int N) {
    auto const bound = [&](int k) { return static_cast<int>(static_cast<long long>(N) * k / n); };
    return {bound(i - 1), bound(i)};
}

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
        text << fs::path(part.path).filename().string() << " " << part.individuals.size() << "\n";
        for (std::size_t r = 0; r < part.individuals.size(); ++r) text << (r ? " " : "") << part.individuals[r];
        text << "\n";
    }
    if (complete) text << "complete\n";
    out.write(text.str());
    out.finish();
}

std::vector<result_part> read_chunk_indexes(LSMatrixParameters const& parameters, int N, result_layout const& layout) {
    int const n = parameters.merge_count;
    std::string const fingerprint = run_fingerprint(parameters);
    std::size_t const record_bytes = layout.record_size() * sizeof(double);
    std::vector<result_part> all;
    for (int i = 1; i <= n; ++i) {
        std::string const name = chunk_name(parameters, i, n) + ".part";
        std::string const rerun = " (run it again with -chunk " + std::to_string(i) + " " + std::to_string(n) + ")";
        std::ifstream in(name);
        if (!in.is_open()) refuse(name, "partial results of chunk " + std::to_string(i) + " of " + std::to_string(n) + " are missing" + rerun + ".");
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        if (lines.empty() || lines[0] != index_title) refuse(name, "not a partial results file.");
        if (lines.back() != "complete") refuse(name, "partial results are incomplete" + rerun + ".");
        if (lines.size() < 7 || lines[1] != "fingerprint " + fingerprint)
            refuse(name, "partial results made by another command line or from other input files.");
        std::istringstream text(lines[2] + " " + lines[3]);
        std::string key, key2;
        int chunk_i = 0, chunk_n = 0, total = -1, first = -1, last = -1;
        text >> key >> chunk_i >> chunk_n >> key2 >> total >> first >> last;
        if (key != "chunk" || chunk_i != i || chunk_n != n)
            refuse(name, "partial results belong to chunk " + std::to_string(chunk_i) + " of " +
                             std::to_string(chunk_n) + ", not " + std::to_string(i) + " of " + std::to_string(n) + ".");
        auto const expected = chunk_individuals(i, n, N);
        if (key2 != "individuals" || total != N || first != expected.first || last != expected.second)
            refuse(name, "partial results hold other individuals than this run's.");
        if (lines[4] != "layout " + layout_text(layout)) refuse(name, "partial results hold other positions or outputs.");
        std::istringstream listing;
        {
            std::string rest;
            for (std::size_t l = 5; l + 1 < lines.size(); ++l) rest += lines[l] + "\n";
            listing.str(rest);
        }
        std::size_t files = 0;
        listing >> key >> files;
        std::vector<result_part> parts;
        for (std::size_t f = 0; listing && f < files; ++f) {
            std::string file;
            std::size_t count = 0;
            listing >> file >> count;
            result_part part{(fs::path(name).parent_path() / file).string(), std::vector<int>(count)};
            for (auto& individual : part.individuals) listing >> individual;
            parts.push_back(std::move(part));
        }
        if (key != "files" || !listing) refuse(name, "partial results are incomplete" + rerun + ".");
        std::size_t records = 0;
        for (auto const& part : parts) {
            boost::system::error_code error;
            auto const size = fs::file_size(part.path, error);
            if (error || size != part.individuals.size() * record_bytes)
                refuse(part.path, "partial results are incomplete" + rerun + ".");
            for (int individual : part.individuals)
                if (individual < first || individual >= last) refuse(name, "partial results hold other individuals than this run's.");
            records += part.individuals.size();
        }
        if (records != static_cast<std::size_t>(last - first)) refuse(name, "partial results are incomplete" + rerun + ".");
        all.insert(all.end(), parts.begin(), parts.end());
    }
    return all;
}
