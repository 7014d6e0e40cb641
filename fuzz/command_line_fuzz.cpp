// The command line: arguments separated by NUL bytes, parsed and summarised.
// Arguments never hold a "/", so no output folder is ever created.
#include <algorithm>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    std::vector<std::string> args = {"ketra"};
    auto const parts = ketra_fuzz::split_input(data, size, 64);
    for (std::string a : parts) {
        std::replace(a.begin(), a.end(), '/', '_');
        args.push_back(a);
    }
    while (args.size() > 1 && args.back().empty()) args.pop_back();
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    LSMatrixParameters parameters;
    try {
        parameters.process_parameters(static_cast<int>(argv.size()), argv.data());
        std::ostringstream summary;
        parameters.parameters_summary(summary);
    } catch (HelpException const&) {
    } catch (FlagException const&) {
    }
    return 0;
}
