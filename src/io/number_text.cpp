#include "io/number_text.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int table_min = -340, table_max = 340;

// Powers of ten, each the double nearest the exact power (the library's
// correctly rounded conversion makes them).
struct powers_of_ten {
    double value[table_max - table_min + 1];
    powers_of_ten() {
        for (int k = table_min; k <= table_max; ++k)
            value[k - table_min] = std::strtod(("1e" + std::to_string(k)).c_str(), nullptr);
    }
    double operator()(int k) const { return value[k - table_min]; }
};

// Made on first use, so that text written during static set-up finds it ready.
powers_of_ten const& powers() {
    static powers_of_ten const table;
    return table;
}

char* library_text(char* out, double value, int precision) {
    return std::to_chars(out, out + 64, value, std::chars_format::general, precision).ptr;
}

}  // namespace

// The digits come from value * 10^k rounded to an integer of `precision`
// digits. That product is within a few units in the last place of the exact
// one, so the rounding is certain unless the fraction lies next to one half;
// those rare values, zero, the extremes, non-finite values and long
// precisions go to the library's exact conversion.
char* general_text(char* out, double value, int precision) {
    double const magnitude = std::fabs(value);
    powers_of_ten const& ten_to = powers();
    if (precision < 1 || precision > 9 || !(magnitude >= 1e-280 && magnitude <= 1e280))
        return library_text(out, value, precision);

    // Probabilities next to one are the commonest values written: all of them
    // that round to one, away from the rounding boundaries, take a short cut.
    if (magnitude > 1.0 - 0.45 * ten_to(-precision) && magnitude < 1.0 + 4.5 * ten_to(-precision)) {
        if (value < 0) *out++ = '-';
        *out++ = '1';
        return out;
    }
    std::uint64_t bits;
    std::memcpy(&bits, &magnitude, sizeof bits);
    int const binary_exponent = static_cast<int>(bits >> 52) - 1023;  // magnitude in [2^e, 2^(e+1))
    int x = (binary_exponent * 78913) >> 18;  // floor(e * log10(2)): the decimal exponent or one less
    x += magnitude >= ten_to(x + 1);          // no branch: which of the two it is, is random
    double const low = ten_to(precision - 1), high = ten_to(precision);
    double digits = 0.0;
    for (int tries = 0;; ++tries) {
        if (tries == 3) return library_text(out, value, precision);
        double const scaled = magnitude * ten_to(precision - 1 - x);
        double const whole = static_cast<double>(static_cast<std::int64_t>(scaled));
        if (std::fabs(scaled - whole - 0.5) <= scaled * 1e-14) return library_text(out, value, precision);
        // Without a branch: which way a value rounds is a coin toss.
        digits = whole + static_cast<double>(scaled - whole >= 0.5);
        if (digits >= high) ++x;
        else if (digits < low) --x;
        else break;
    }

    static char const pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char text[32];  // the digits, then room for the fixed-size copies below
    auto n = static_cast<std::uint32_t>(digits);
    if (precision == 6) {
        // The common case, as three independent pairs rather than a chain of divisions.
        std::memcpy(text, pairs + 2 * (n / 10000), 2);
        std::memcpy(text + 2, pairs + 2 * (n / 100 % 100), 2);
        std::memcpy(text + 4, pairs + 2 * (n % 100), 2);
    } else {
        int i = precision;
        for (; i >= 2; i -= 2, n /= 100) std::memcpy(text + i - 2, pairs + 2 * (n % 100), 2);
        if (i == 1) text[0] = static_cast<char>('0' + n);
    }
    int used = precision;  // digits left once trailing zeros go
    while (used > 1 && text[used - 1] == '0') --used;

    if (value < 0) *out++ = '-';
    if (x < -4 || x >= precision) {
        *out++ = text[0];
        if (used > 1) {
            *out++ = '.';
            std::memcpy(out, text + 1, 16);
            out += used - 1;
        }
        *out++ = 'e';
        *out++ = x < 0 ? '-' : '+';
        int e = std::abs(x);
        if (e >= 100) *out++ = static_cast<char>('0' + e / 100);
        *out++ = static_cast<char>('0' + e / 10 % 10);
        *out++ = static_cast<char>('0' + e % 10);
    } else if (x >= 0) {
        int const whole = x + 1;  // digits before the point; whole <= precision
        for (int i = 0; i < whole; ++i) *out++ = text[i];  // past `used` these are zeros
        if (used > whole) {
            *out++ = '.';
            std::memcpy(out, text + whole, 16);
            out += used - whole;
        }
    } else {
        *out++ = '0';
        *out++ = '.';
        for (int i = 0; i < -x - 1; ++i) *out++ = '0';
        std::memcpy(out, text, 16);
        out += used;
    }
    return out;
}
