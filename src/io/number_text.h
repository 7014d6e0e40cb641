// Fast text for doubles, byte-identical to what an ostream with default flags
// writes at the given precision ("%.<precision>g"). Streams cost about 200 ns
// a number, which dominates runs that write whole pair matrices.
#pragma once

#include <charconv>
#include <string>

inline void append_number(std::string& out, double value, int precision) {
    char buffer[64];
    auto const result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, precision);
    out.append(buffer, result.ptr);
}

inline void append_number(std::string& out, int value) {
    char buffer[16];
    auto const result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}
