// Text rules of the Python script ketra-prep once was, kept so that every
// message and output byte stays what it was: repr() of a str or bytes, int()
// and float() of a string, str.split() without arguments.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// repr() of the str that Python decodes from these bytes (UTF-8, undecodable
// bytes as surrogate escapes, as Python does with file names and arguments).
std::string python_repr(std::string_view text);

// repr() of a bytes object: b'..' with Python's escapes.
std::string python_bytes_repr(std::string_view bytes);

// int(text) in base 10: surrounding white space, a sign, digits with single
// underscores between them. The value saturates beyond 64 bits; `canonical`
// gets str() of the exact integer.
bool python_int(std::string_view text, std::int64_t& value, std::string& canonical);

// float(text): surrounding white space, a sign, decimal digits with single
// underscores between them, a point, an exponent, or inf / infinity / nan.
bool python_float(std::string_view text, double& value);

// Whether the character (an ASCII byte) is white space to str.split().
bool python_space(unsigned char c);

// str.split() without arguments: the runs of text between white space.
void python_split(std::string_view line, std::vector<std::string_view>& fields);

// str.strip() without arguments (ASCII white space and U+0085, U+00A0).
std::string_view python_strip(std::string_view text);

// f"{value:.6f}" of a float.
std::string python_fixed6(double value);
