// SNP exclusion lists (up to two files, split at the first NUL byte) and the
// removal of the SNPs they name.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    auto const parts = ketra_fuzz::split_input(data, size, 2);
    class data store;
    store.parameters.flags_seen = {"-exclude_snps"};
    store.parameters.exclude_snps_files = {ketra_fuzz::write_scratch("exclude1.txt", parts[0]),
                                           ketra_fuzz::write_scratch("exclude2.txt", parts[1])};
    ketra_fuzz::place_snps_from(store, "1\n2\n3\n4\n", 1, 1);
    try {
        store.read_exclusion_list();
        store.remove_excluded_snps();
    } catch (badfilename const&) {
    }
    return 0;
}
