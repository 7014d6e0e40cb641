// The genetic map and its rescaling, then a legend interpolated against it.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    if (size < 1) return 0;
    std::string const content(reinterpret_cast<char const*>(data) + 1, size - 1);
    class data store;
    store.parameters.genetic_map_file = ketra_fuzz::write_scratch("map.txt", content);
    store.parameters.strict = data[0] % 2;
    store.parameters.lower = 0;
    store.parameters.upper = 1e12;
    store.parameters.legend_file =
        ketra_fuzz::write_scratch("map.legend", "id pos a0 a1\nrs1 100 A G\nrs2 5000 C T\nrs3 900000 A C\n");
    store.parameters.haplotype_file = ketra_fuzz::write_scratch("map.hap", "0 1 1\n1 1 0\n0 0 1\n");
    try {
        store.read_genetic_map();
        store.read_haplotype_data();
        store.set_switch_rates();
    } catch (badfilename const&) {
    }
    return 0;
}
