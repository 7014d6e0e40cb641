// The genotype lines' field reader against formatted extraction from a string
// stream: every line of the input is read both ways, as strings or numbers in
// the order the first byte's bits choose, and every value, end-of-line and
// failure state must agree. Any difference aborts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "io/field_reader.h"

namespace {

void compare_line(std::string const& line, unsigned pattern) {
    field_reader fast(line);
    std::istringstream stream(line);
    for (int k = 0; k < 64; ++k) {
        bool const as_number = k >= 5 || ((pattern >> (k % 8)) & 1u);
        bool ok_fast = false, ok_stream = false;
        if (as_number) {
            double a = 12345.0, b = 12345.0;
            ok_fast = fast.read(a);
            ok_stream = static_cast<bool>(stream >> b);
            if (std::memcmp(&a, &b, sizeof a) != 0) std::abort();
        } else {
            std::string a = "untouched", b = "untouched";
            ok_fast = fast.read(a);
            ok_stream = static_cast<bool>(stream >> b);
            if (a != b) std::abort();
        }
        if (ok_fast != ok_stream || fast.eof() != stream.eof() || fast.fail() != stream.fail()) std::abort();
        if (!ok_fast) break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size < 1) return 0;
    std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) compare_line(line, data[0]);
    return 0;
}
