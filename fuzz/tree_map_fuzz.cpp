// The tree map file, plain or (odd first byte) through the gzip decompressor.
#include "fuzz_support.h"
#include "trees/tree.h"
#include "trees/tree_map.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    if (size < 1) return 0;
    std::string const content(reinterpret_cast<char const*>(data) + 1, size - 1);
    LSMatrixParameters parameters;
    parameters.tree_file = ketra_fuzz::write_scratch(data[0] % 2 ? "trees.txt.gz" : "trees.txt", content);
    parameters.lower = 0;
    parameters.upper = 1e12;
    std::map<double, std::string> tree_map;
    try {
        read_tree_map_file(parameters, tree_map);
        tree_nodes tree;
        for (auto const& entry : tree_map) parse_tree(entry.second, tree, 4);
    } catch (badfilename const&) {
    } catch (BadTreeDataException const&) {
    }
    return 0;
}
