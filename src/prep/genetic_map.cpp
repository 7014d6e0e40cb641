#include "prep/genetic_map.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <htslib/hts.h>
#include <htslib/kstring.h>

#include "prep/prep_error.h"

namespace {

std::string_view without_chr(std::string_view s) { return s.substr(0, 3) == "chr" ? s.substr(3) : s; }

// The white-space separated fields of a line (hts_getline has dropped the
// "\r" of a "\r\n" line end).
void split_fields(std::string_view line, std::vector<std::string_view>& fields) {
    fields.clear();
    auto const space = [](char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; };
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && space(line[i])) ++i;
        std::size_t const start = i;
        while (i < line.size() && !space(line[i])) ++i;
        if (i > start) fields.push_back(line.substr(start, i - start));
    }
}

bool parse_double(std::string_view text, double& value) {
    std::string const s(text);
    char* end = nullptr;
    value = std::strtod(s.c_str(), &end);
    return !s.empty() && end == s.c_str() + s.size();
}

// The column whose header is one of the names (any case), or -1.
int find_column(std::vector<std::string_view> const& head, std::initializer_list<char const*> names) {
    for (std::size_t i = 0; i < head.size(); ++i)
        for (char const* n : names)
            if (head[i].size() == std::strlen(n) && ::strncasecmp(head[i].data(), n, head[i].size()) == 0)
                return static_cast<int>(i);
    return -1;
}

// The map file, read line by line through htslib (plain or gzip alike).
class map_lines {
public:
    explicit map_lines(std::string const& path) : path_(path), file_(hts_open(path.c_str(), "r")) {
        if (!file_) throw prep_error{path + ": cannot open the map (" + std::strerror(errno) + ")"};
    }
    ~map_lines() {
        hts_close(file_);
        ks_free(&line_);
    }
    map_lines(map_lines const&) = delete;
    map_lines& operator=(map_lines const&) = delete;

    // The next line's fields; false at the end.
    bool next(std::vector<std::string_view>& fields) {
        int const got = hts_getline(file_, '\n', &line_);
        if (got < -1)
            throw prep_error{path_ + ": the map is truncated or corrupt " +
                             (number_ == 0 ? std::string("at its start") : "after line " + std::to_string(number_))};
        if (got == -1) return false;
        ++number_;
        split_fields(std::string_view(line_.s, line_.l), fields);
        return true;
    }
    long number() const { return number_; }

private:
    std::string path_;
    htsFile* file_;
    kstring_t line_ = KS_INITIALIZE;
    long number_ = 0;
};

}  // namespace

std::vector<map_row> read_map_rows(std::string const& path, std::string const& chrom, std::int64_t lo,
                                   std::int64_t hi) {
    map_lines lines(path);
    std::vector<std::string_view> fields;
    if (!lines.next(fields)) fields.clear();
    int const pos_col = find_column(fields, {"pos", "position", "position(bp)"});
    int const cm_col = find_column(fields, {"cm", "genetic_map(cm)", "map(cm)"});
    int const chr_col = find_column(fields, {"chr", "chromosome"});
    if (pos_col < 0 || cm_col < 0)
        throw prep_error{path + ": the header is neither 'pos chr cM' nor "
                                "'position COMBINED_rate(cM/Mb) Genetic_Map(cM)'"};
    std::string_view const wanted = without_chr(chrom);
    auto const field = [&](int column) { return fields[static_cast<std::size_t>(column)]; };
    auto const bad_row = [&] {
        return prep_error{path + ": line " + std::to_string(lines.number()) + " is not a map row"};
    };

    // The rows from the last one at or before lo to the first one at or after hi.
    std::vector<map_row> kept;
    bool last_found = false;  // a row at or after hi was met and kept
    bool any = false;
    std::int64_t previous = 0;
    while (lines.next(fields)) {
        if (fields.empty()) continue;
        if (chr_col >= 0) {
            if (static_cast<std::size_t>(chr_col) >= fields.size()) throw bad_row();
            if (without_chr(field(chr_col)) != wanted) continue;
        }
        double position_value = 0, cm = 0;
        if (static_cast<std::size_t>(std::max(pos_col, cm_col)) >= fields.size() ||
            !parse_double(field(pos_col), position_value) || !std::isfinite(position_value) ||
            std::fabs(position_value) >= 9.2e18 || !parse_double(field(cm_col), cm))
            throw bad_row();
        auto const position = static_cast<std::int64_t>(position_value);  // truncated toward zero
        if (any && position < previous)
            throw prep_error{path + ": line " + std::to_string(lines.number()) +
                             ": positions are not ascending; sort the map by position"};
        previous = position;
        any = true;
        if (last_found) continue;  // the rest is only checked
        if (position <= lo) kept.clear();
        kept.push_back(map_row{position, cm, std::string(field(cm_col))});
        last_found = position >= hi;
    }
    if (kept.size() < 2)
        throw prep_error{path + ": fewer than two map rows for chromosome " + chrom + " around the region"};
    return kept;
}

std::string map_file_text(std::vector<map_row> const& rows) {
    std::string out = "position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        double rate = 0.0;
        if (i + 1 < rows.size() && rows[i + 1].position != rows[i].position)
            rate = (rows[i + 1].cm - rows[i].cm) / static_cast<double>(rows[i + 1].position - rows[i].position) * 1e6;
        char rate_text[64];
        std::snprintf(rate_text, sizeof rate_text, "%.6f", rate);
        out += std::to_string(rows[i].position) + ' ' + rate_text + ' ' + rows[i].cm_text + '\n';
    }
    return out;
}
