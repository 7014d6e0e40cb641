#include "trees/tree_map.h"

#include <iostream>
#include <sstream>

#include "io/console.h"
#include "io/badfilename.h"
#include "io/input_check.h"
#include "io/text_stream.h"

void read_tree_map_file(LSMatrixParameters const& parameters, std::map<double, std::string>& tree_map) {
    boost::filesystem::path const& path = parameters.tree_file;
    std::string const name = path.string();

    std::cout << "Reading tree file " << name << " ... " << std::flush;
    if (is_gzip_path(path)) std::cout << "in gzip mode ... " << std::flush;

    std::unique_ptr<std::istream> in = open_text_input(path);
    if (!in) throw badfilename(name, "can't read tree map file.");
    auto strict_check = [&](std::string const& fault) {
        if (parameters.strict && !fault.empty()) throw badfilename(name, fault);
    };
    if (parameters.strict) strict_check(whole_file_fault(path, is_gzip_path(path)));

    // The bounds are the "-int" values as given; a run without "-int" keeps
    // both at -1 here.
    std::string line;
    long line_number = 0;
    while (read_text_line(*in, line)) {
        ++line_number;
        if (parameters.strict) strict_check(line_fault(line, line_number, layouts::tree_map));
        std::istringstream fields(line);
        double position = 0.0;
        if (!(fields >> position)) continue;
        if (position < parameters.lower || position > parameters.upper) continue;
        tree_map.emplace(position, line);  // the first line for a position wins
    }
    in.reset();
    std::cout << "done." << std::endl;

    if (tree_map.empty()) throw badfilename(name, "no suitable positions found in tree map file.");
    print_count(std::cout, "number of tree location found in region of interest: ", tree_map.size());
    std::cout << std::endl;
}
