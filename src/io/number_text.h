// Fast text for numbers, byte-identical to what an ostream with default flags
// writes at the given precision ("%.<precision>g"). Streams cost about 200 ns
// a number, which dominates runs that write whole pair matrices.
#pragma once

#include <charconv>
#include <string>

// Writes value as "%.<precision>g" would, from out on, and returns the end.
// The 64 bytes from out on may all be written: the digits go in fixed-size
// copies, whose bytes past the end are scratch.
char* general_text(char* out, double value, int precision);

inline void append_number(std::string& out, double value, int precision) {
    char buffer[64];
    out.append(buffer, general_text(buffer, value, precision));
}

inline void append_number(std::string& out, int value) {
    char buffer[16];
    auto const result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}
