// The sample file and the sample exclusion file (split at the first NUL
// byte), applied to a table of genotyped SNPs.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    if (size < 1) return 0;
    auto const parts = ketra_fuzz::split_input(data + 1, size - 1, 2);
    class data store;
    store.parameters.sample_file = ketra_fuzz::write_scratch("study.sample", parts[0]);
    store.parameters.exclude_samples_file = ketra_fuzz::write_scratch("exclude.txt", parts[1]);
    ketra_fuzz::place_snps_from(store, "1\n2\n3\n", 1, data[0] % 16);
    try {
        store.apply_sample_exclusions();
    } catch (badfilename const&) {
    }
    return 0;
}
