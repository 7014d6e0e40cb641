// The tree text of one tree map line, against a leaf count taken from the first byte.
#include "fuzz_support.h"
#include "trees/tree.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size < 1) return 0;
    int const leaves = data[0] % 40;
    std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
    tree_nodes tree;
    try {
        parse_tree(text, tree, leaves);
    } catch (BadTreeDataException const&) {
    }
    return 0;
}
