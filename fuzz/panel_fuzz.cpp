// Legend and haplotype files read in lock-step (the input holds both, split
// at the first NUL byte), then the data set-up over what they placed.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    auto const parts = ketra_fuzz::split_input(data, size, 2);
    class data store;
    store.parameters.legend_file = ketra_fuzz::write_scratch("ref.legend", parts[0]);
    store.parameters.haplotype_file = ketra_fuzz::write_scratch("ref.hap", parts[1]);
    store.parameters.lower = 0;
    store.parameters.upper = 1e12;
    store.map_positions = {0.0, 1000.0, 1e6};
    store.map_genetic = {0.0, 1.0, 50.0};
    try {
        store.read_haplotype_data();
        store.set_mutation_matrix(store.n_haplotypes);
        store.set_switch_rates();
    } catch (badfilename const&) {
    }
    return 0;
}
