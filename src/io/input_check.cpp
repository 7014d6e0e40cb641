#include "io/input_check.h"

#include <cmath>
#include <cstdlib>

#include <boost/filesystem/operations.hpp>

#include "io/field_reader.h"
#include "io/text_stream.h"

namespace layouts {
line_layout const genetic_map{"a map line has 3 numbers: position, rate and genetic position", 3, 3, 0, {1, 2, 3}};
line_layout const legend{"a legend line has 4 fields or more: id, position and two alleles", 4, 0, 0, {2}};
line_layout const genotypes{"a genotype line has 5 plus 3 per individual", 5, 0, 3, {3}};
line_layout const strand{"a strand line has 2 fields or more: position and strand", 2, 0, 0, {1}};
line_layout const sample{"a sample line has 2 fields or more: two ids", 2, 0, 0, {}};
line_layout const tree_map{"a tree map line has a position and a tree", 2, 0, 0, {1}};
}  // namespace layouts

namespace {

bool is_finite_number(std::string const& token) {
    char* end = nullptr;
    double const value = std::strtod(token.c_str(), &end);
    return end != token.c_str() && *end == '\0' && std::isfinite(value);
}

}  // namespace

std::string whole_file_fault(boost::filesystem::path const& path, bool decompressed, bool may_be_empty) {
    boost::system::error_code ec;
    if (!boost::filesystem::is_regular_file(path, ec)) return "not a regular file.";
    if (!may_be_empty && boost::filesystem::file_size(path, ec) == 0 && !ec) return "file is empty.";
    if (!decompressed && starts_with_gzip_magic(path)) return gzip_in_plain_input;
    return "";
}

std::string line_fault(std::string const& line, long line_number, line_layout const& layout) {
    std::string const where = "line " + std::to_string(line_number);
    // Only the fields that must be numbers are copied out: a genotype line
    // of a large study has millions of fields.
    std::size_t count = 0;
    std::size_t next_number = 0;
    char const* p = line.data();
    char const* const end = p + line.size();
    while (true) {
        while (p != end && is_blank(*p)) ++p;
        if (p == end) break;
        char const* const start = p;
        while (p != end && !is_blank(*p)) ++p;
        ++count;
        if (next_number < layout.numbers.size() && layout.numbers[next_number] == count) {
            std::string const token(start, p);
            if (!is_finite_number(token))
                return where + ", field " + std::to_string(count) + " is '" + token + "', not a number; " +
                       layout.description + ".";
            ++next_number;
        }
    }
    bool fits = count >= layout.fields && (layout.most_fields == 0 || count <= layout.most_fields);
    if (layout.repeat != 0) fits = count > layout.fields && (count - layout.fields) % layout.repeat == 0;
    if (fits) return "";
    return where + (count == 0 ? " is blank" : " has " + std::to_string(count) + (count == 1 ? " field" : " fields")) +
           "; " + layout.description + ".";
}
