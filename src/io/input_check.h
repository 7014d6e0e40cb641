// The checks -strict adds to the input readers: a file that is no file, is
// empty or is compressed where it will be read as text, and a line whose
// fields do not fit its input's layout. Each returns the cause of the fault,
// to be thrown as badfilename, or "" when there is none. The default run never
// calls them: it keeps the readers' lenient outcomes.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

// The file as a whole, once it has opened. decompressed: the reader passes
// this file through the gzip decompressor (a genotype or tree map file whose
// name ends in .gz), so only then may its content be gzip. may_be_empty: an
// empty file is a valid one (an exclusion list that excludes nothing).
std::string whole_file_fault(boost::filesystem::path const& path, bool decompressed, bool may_be_empty = false);

// The fields one line of an input must have: at least `fields`, at most
// `most_fields` (0: no limit), or, with `repeat`, `fields` plus one or more
// groups of `repeat`. The 1-based fields in `numbers` must be finite numbers.
struct line_layout {
    char const* description;  // completes "...; <description>."
    std::size_t fields;
    std::size_t most_fields;
    std::size_t repeat;
    std::vector<std::size_t> numbers;
};

// "line 3 has 2 fields; a map line has 3 numbers." and the like.
std::string line_fault(std::string const& line, long line_number, line_layout const& layout);

// The layouts of the run's text inputs.
namespace layouts {
extern line_layout const genetic_map;
extern line_layout const legend;
extern line_layout const genotypes;
extern line_layout const strand;
extern line_layout const sample;
extern line_layout const tree_map;
}  // namespace layouts
