// The genotype file, plain or (odd first byte) through the gzip decompressor;
// every position it names is in the SNP table, so every line is parsed.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    if (size < 1) return 0;
    std::string const content(reinterpret_cast<char const*>(data) + 1, size - 1);
    class data store;
    store.parameters.genotype_file = ketra_fuzz::write_scratch(data[0] % 2 ? "study.gen.gz" : "study.gen", content);
    store.parameters.lower = 0;
    store.parameters.upper = 1e12;
    store.parameters.call_thresh = (data[0] >> 1) / 127.0;
    ketra_fuzz::place_snps_from(store, content, 3, 0);
    store.n_individuals = -1;
    try {
        store.read_genotype_data();
        store.read_strand_data();
        store.setup();
    } catch (badfilename const&) {
    }
    return 0;
}
