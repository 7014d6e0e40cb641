// The fast number text must be byte-identical to what an ostream writes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iomanip>
#include <limits>
#include <random>
#include <sstream>

#include "io/number_text.h"

namespace {

std::string streamed(double v, int precision) {
    std::ostringstream os;
    os << std::setprecision(precision) << v;
    return os.str();
}

std::string fast(double v, int precision) {
    std::string s;
    append_number(s, v, precision);
    return s;
}

}  // namespace

TEST(NumberText, MatchesStreamOnSpecialAndBoundaryValues) {
    double const inf = std::numeric_limits<double>::infinity();
    double const values[] = {0.0, -0.0, 1.0, -1.0, 0.5, 1e-5, 1e-4, 9.999995e-5, 0.0001, 123456.5, 999999.5,
                             1e6, 1234567, 1.35e6, 99999.95, 1e15, 1e-15, 4.75925e-15, 5e-324, 1.7976931348623157e308,
                             inf, -inf, std::nan(""), -std::nan(""), 0.1 + 0.2, 1.0 / 3.0, 2.0 / 3.0};
    for (double v : values)
        for (int precision : {6, 10}) EXPECT_EQ(fast(v, precision), streamed(v, precision)) << v;
}

TEST(NumberText, MatchesStreamOnRandomDoublesAndPositions) {
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 50000; ++i) {
        // Probabilities over many magnitudes, raw bit patterns, and base-pair positions.
        double const p = unit(rng) * std::pow(10.0, -static_cast<int>(unit(rng) * 40));
        std::uint64_t bits = rng();
        double raw;
        std::memcpy(&raw, &bits, sizeof raw);
        double const position = std::floor(unit(rng) * 3e8) + (i % 4) * 0.25;
        for (double v : {p, raw, position, 1 - p})
            for (int precision : {6, 10}) ASSERT_EQ(fast(v, precision), streamed(v, precision)) << v;
    }
}

TEST(NumberText, IntegersMatchStream) {
    for (int v : {0, 7, -3, 398, 2147483647, -2147483647 - 1}) {
        std::string s;
        append_number(s, v);
        EXPECT_EQ(s, std::to_string(v));
    }
}
