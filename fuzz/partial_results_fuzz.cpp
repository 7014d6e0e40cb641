// The merge's side of split runs: chunk indexes and record files as a merge
// reads them, then every record read back and summed. Anything damaged must
// end as run_error; a crash or sanitizer report is a finding.
//
// Input: the files of one split, separated by "\0==file==\0". The first piece
// is "N K pairs b1 b2 ..." (the merging run's individuals and layout), each
// later piece "<name>\n<content>". Names hold letters, digits and dots only.
// "FINGERPRINT" in a piece stands for the merging run's fingerprint and a
// line "checksum CHECKSUM" for the checksum of the lines above it, so that
// the fuzzer gets past those checks; the chunk count comes from the first
// index named "run.chunk1of<n>.part".
#include <cstring>

#include "fuzz_support.h"
#include "results/partial_results.h"
#include "results/writers.h"

namespace {

std::vector<std::string> pieces_of(uint8_t const* data, size_t size) {
    static std::string const marker("\0==file==\0", 10);
    std::string const all(reinterpret_cast<char const*>(data), size);
    std::vector<std::string> pieces;
    std::size_t from = 0;
    for (std::size_t at; (at = all.find(marker, from)) != std::string::npos; from = at + marker.size())
        pieces.push_back(all.substr(from, at - from));
    pieces.push_back(all.substr(from));
    return pieces;
}

bool plain_name(std::string const& name) {
    if (name.empty() || name.size() > 64 || name == "." || name == "..") return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.') return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const quiet = (ketra_fuzz::silence_console(), true);
    (void)quiet;
    auto pieces = pieces_of(data, size);
    if (pieces.size() < 2 || pieces.size() > 16) return 0;

    std::istringstream header(pieces[0]);
    int N = 0, K = 0, pairs = 0;
    if (!(header >> N >> K >> pairs) || N < 0 || N > 64 || K < 0 || K > 16) return 0;
    std::vector<int> branches;
    for (int b; header >> b;) {
        if (b < 0 || b > 32 || branches.size() >= 8) return 0;
        branches.push_back(b);
    }
    result_layout const layout(K, branches, pairs != 0);

    // A fresh folder each time: files of an earlier input must not count.
    boost::filesystem::path const folder = ketra_fuzz::scratch_dir() / "split";
    boost::system::error_code ignored;
    boost::filesystem::remove_all(folder, ignored);
    boost::filesystem::create_directories(folder);

    LSMatrixParameters parameters;
    parameters.command_line = "ketra -o run -tavlo_input";
    parameters.output_file = folder / "run";
    std::string const fingerprint = run_fingerprint(parameters);
    parameters.merge_count = 0;
    for (std::size_t p = 1; p < pieces.size(); ++p) {
        std::size_t const end = pieces[p].find('\n');
        if (end == std::string::npos) return 0;
        std::string const name = pieces[p].substr(0, end);
        if (!plain_name(name)) return 0;
        std::string content = pieces[p].substr(end + 1);
        for (std::size_t at; (at = content.find("FINGERPRINT")) != std::string::npos;)
            content.replace(at, 11, fingerprint);
        std::size_t const line = content.find("\nchecksum CHECKSUM");
        if (line != std::string::npos) {
            char hex[9];
            std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(extend_checksum(0, content.data(), line + 1)));
            content.replace(line + 10, 8, hex);
        }
        int n = 0;
        if (parameters.merge_count == 0 && std::sscanf(name.c_str(), "run.chunk1of%d.part", &n) == 1 && n > 0 && n <= 8 &&
            name == "run.chunk1of" + std::to_string(n) + ".part")
            parameters.merge_count = n;
        std::FILE* f = std::fopen((folder / name).c_str(), "wb");
        if (!f) return 0;
        std::fwrite(content.data(), 1, content.size(), f);
        std::fclose(f);
    }
    if (parameters.merge_count == 0) return 0;

    try {
        auto const parts = read_chunk_indexes(parameters, N, layout);
        result_file_reader const records(parts, 0, N, layout.record_size());
        auto const sums = sum_haplotype_probabilities(records, layout, 1);
        std::vector<double> record(layout.record_size());
        for (int individual = 0; individual < N; ++individual)
            records.read(individual, 0, record.size(), record.data());
    } catch (run_error const&) {
    }
    return 0;
}
