// Shared pieces of the fuzz targets: a scratch file per process, a silent
// console, and splitting one input into the several files a reader needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "data/data.h"
#include "io/text_stream.h"

namespace ketra_fuzz {

// The readers report their progress on std::cout; the fuzzer only wants crashes.
class null_buffer : public std::streambuf {
protected:
    int overflow(int c) override { return c; }
    std::streamsize xsputn(char const*, std::streamsize n) override { return n; }
};

inline void silence_console() {
    static null_buffer sink;
    std::cout.rdbuf(&sink);
}

// A scratch folder of this process, left behind on purpose: parallel jobs
// each have their own.
inline boost::filesystem::path scratch_dir() {
    static boost::filesystem::path const dir = [] {
        auto d = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("ketra-fuzz-%%%%-%%%%");
        boost::filesystem::create_directories(d);
        return d;
    }();
    return dir;
}

inline std::string write_scratch(std::string const& name, std::string const& content) {
    std::string const path = (scratch_dir() / name).string();
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        std::fwrite(content.data(), 1, content.size(), f);
        std::fclose(f);
    }
    return path;
}

// Parts of the input separated by NUL bytes (at most `parts`; the last takes the rest).
inline std::vector<std::string> split_input(uint8_t const* data, size_t size, std::size_t parts) {
    std::vector<std::string> out(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0 && out.size() < parts) out.emplace_back();
        else out.back() += static_cast<char>(data[i]);
    }
    out.resize(parts);
    return out;
}

// A store whose SNP table holds a genotyped record at the position in
// column `column` (1-based) of every line of text, so that the readers
// that only look at known positions see every line.
inline void place_snps_from(data& store, std::string const& text, int column, int individuals) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string skip;
        for (int c = 1; c < column; ++c) fields >> skip;
        double position = 0.0;
        if (!(fields >> position)) continue;
        snp& s = store.snps[position];
        s.rs_id = s.snp_id = "rs" + std::to_string(store.snps.size());
        s.strand = "*";
        s.data_type = 2;
        s.hap_frequency = 0.3;
        s.genotype_frequency = 0.8;
        s.genotypes.assign(individuals, 1);
        std::vector<double> const probs = [&] {
            std::vector<double> p;
            for (int i = 0; i < individuals; ++i) p.insert(p.end(), {0.1, 0.8, 0.1});
            return p;
        }();
        s.genotype_probs.assign(probs.data(), static_cast<std::size_t>(individuals));
    }
    store.n_individuals = individuals;
}

}  // namespace ketra_fuzz
