// The strand file with frequency-based prediction, then allele alignment.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    std::string const content(reinterpret_cast<char const*>(data), size);
    class data store;
    store.parameters.strand_file = ketra_fuzz::write_scratch("strand.txt", content);
    store.parameters.flags_seen = {"-strand", "-fix_strand"};
    ketra_fuzz::place_snps_from(store, content, 1, 3);
    for (auto& entry : store.snps) {
        entry.second.genotype_allele_a = "A";
        entry.second.genotype_allele_b = "G";
        entry.second.legend_allele_1 = "C";
    }
    try {
        store.read_strand_data();
        store.setup();
    } catch (badfilename const&) {
    }
    return 0;
}
