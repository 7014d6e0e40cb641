#include "prep/python_text.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

char const hex_digits[] = "0123456789abcdef";

void append_hex_escape(std::string& out, char kind, std::uint32_t c, int digits) {
    out += '\\';
    out += kind;
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += hex_digits[(c >> shift) & 0xf];
}

// The next code point of UTF-8 text from `i` on; an undecodable byte b becomes
// U+DC00 + b (Python's surrogate escape). `length` gets the bytes used.
std::uint32_t next_code_point(std::string_view s, std::size_t i, std::size_t& length) {
    auto const b = static_cast<unsigned char>(s[i]);
    length = 1;
    if (b < 0x80) return b;
    int more = 0;
    std::uint32_t c = 0, least = 0;
    if (b >= 0xc2 && b <= 0xdf) more = 1, c = b & 0x1f, least = 0x80;
    else if (b >= 0xe0 && b <= 0xef) more = 2, c = b & 0x0f, least = 0x800;
    else if (b >= 0xf0 && b <= 0xf4) more = 3, c = b & 0x07, least = 0x10000;
    else return 0xdc00 + b;
    if (i + more >= s.size()) return 0xdc00 + b;
    for (int k = 1; k <= more; ++k) {
        auto const n = static_cast<unsigned char>(s[i + k]);
        if ((n & 0xc0) != 0x80) return 0xdc00 + b;
        c = (c << 6) | (n & 0x3f);
    }
    if (c < least || c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) return 0xdc00 + b;
    length = static_cast<std::size_t>(more) + 1;
    return c;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Digits with single underscores between them, from `i` on; false when there
// is no digit. `digits` gets them without the underscores.
bool digit_part(std::string_view s, std::size_t& i, std::string& digits) {
    if (i >= s.size() || !is_digit(s[i])) return false;
    digits += s[i++];
    while (i < s.size()) {
        if (is_digit(s[i])) {
            digits += s[i++];
        } else if (s[i] == '_' && i + 1 < s.size() && is_digit(s[i + 1])) {
            ++i;
        } else {
            break;
        }
    }
    return true;
}

bool equals_folded(std::string_view s, char const* word) {
    std::size_t i = 0;
    for (; word[i] != '\0'; ++i) {
        if (i >= s.size()) return false;
        char c = s[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != word[i]) return false;
    }
    return i == s.size();
}

// repr()'s quote: double only when the text has single quotes and no double ones.
char repr_quote(std::string_view text) {
    bool has_single = false, has_double = false;
    for (char c : text) {
        has_single |= c == '\'';
        has_double |= c == '"';
    }
    return has_single && !has_double ? '"' : '\'';
}

// The escapes str and bytes share: the quote, the backslash, tab, newline and
// carriage return. False for any other character.
bool append_plain_escape(std::string& out, std::uint32_t c, char quote) {
    char escaped;
    switch (c) {
        case '\t': escaped = 't'; break;
        case '\n': escaped = 'n'; break;
        case '\r': escaped = 'r'; break;
        case '\\': escaped = '\\'; break;
        default:
            if (c != static_cast<unsigned char>(quote)) return false;
            escaped = quote;
    }
    out += '\\';
    out += escaped;
    return true;
}

}  // namespace

std::string python_repr(std::string_view text) {
    char const quote = repr_quote(text);
    std::string out(1, quote);
    for (std::size_t i = 0; i < text.size();) {
        std::size_t length = 1;
        std::uint32_t const c = next_code_point(text, i, length);
        if (!append_plain_escape(out, c, quote)) {
            if (c < 0x20 || c == 0x7f || (c >= 0x80 && c <= 0xa0) || c == 0xad)
                append_hex_escape(out, 'x', c, 2);
            else if (c >= 0xd800 && c <= 0xdfff)
                append_hex_escape(out, 'u', c, 4);
            else
                out.append(text.data() + i, length);
        }
        i += length;
    }
    out += quote;
    return out;
}

std::string python_bytes_repr(std::string_view bytes) {
    char const quote = repr_quote(bytes);
    std::string out = "b";
    out += quote;
    for (char ch : bytes) {
        auto const c = static_cast<unsigned char>(ch);
        if (append_plain_escape(out, c, quote)) continue;
        if (c < 0x20 || c >= 0x7f)
            append_hex_escape(out, 'x', c, 2);
        else
            out += ch;
    }
    out += quote;
    return out;
}

bool python_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r') || (c >= 0x1c && c <= 0x1f); }

namespace {

// The length of the white space starting at `i` (0 when there is none): an
// ASCII space character, or U+0085 / U+00A0 in UTF-8.
std::size_t space_at(std::string_view s, std::size_t i) {
    auto const c = static_cast<unsigned char>(s[i]);
    if (python_space(c)) return 1;
    if (c == 0xc2 && i + 1 < s.size()) {
        auto const n = static_cast<unsigned char>(s[i + 1]);
        if (n == 0x85 || n == 0xa0) return 2;
    }
    return 0;
}

}  // namespace

std::string_view python_strip(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t const n = space_at(text, begin);
        if (n == 0) break;
        begin += n;
    }
    std::size_t end = text.size();
    while (end > begin) {
        if (python_space(static_cast<unsigned char>(text[end - 1]))) {
            --end;
        } else if (end - begin >= 2 && static_cast<unsigned char>(text[end - 2]) == 0xc2 &&
                   (static_cast<unsigned char>(text[end - 1]) == 0x85 ||
                    static_cast<unsigned char>(text[end - 1]) == 0xa0)) {
            end -= 2;
        } else {
            break;
        }
    }
    return text.substr(begin, end - begin);
}

void python_split(std::string_view line, std::vector<std::string_view>& fields) {
    fields.clear();
    std::size_t i = 0;
    while (i < line.size()) {
        std::size_t n;
        while (i < line.size() && (n = space_at(line, i)) != 0) i += n;
        if (i >= line.size()) break;
        std::size_t const start = i;
        while (i < line.size() && space_at(line, i) == 0) ++i;
        fields.push_back(line.substr(start, i - start));
    }
}

bool python_int(std::string_view text, std::int64_t& value, std::string& canonical) {
    std::string_view const s = python_strip(text);
    std::size_t i = 0;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    std::string digits;
    if (!digit_part(s, i, digits) || i != s.size()) return false;
    std::size_t first = digits.find_first_not_of('0');
    if (first == std::string::npos) {
        value = 0;
        canonical = "0";
        return true;
    }
    canonical = (negative ? "-" : "") + digits.substr(first);
    std::uint64_t magnitude = 0;
    bool saturated = false;
    for (std::size_t k = first; k < digits.size(); ++k) {
        auto const d = static_cast<std::uint64_t>(digits[k] - '0');
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - d) / 10) {
            saturated = true;
            break;
        }
        magnitude = magnitude * 10 + d;
    }
    auto const top = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (saturated || magnitude > top) {
        value = negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    } else {
        value = negative ? -static_cast<std::int64_t>(magnitude) : static_cast<std::int64_t>(magnitude);
    }
    return true;
}

bool python_float(std::string_view text, double& value) {
    std::string_view s = python_strip(text);
    std::size_t i = 0;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    std::string_view const rest = s.substr(i);
    if (equals_folded(rest, "inf") || equals_folded(rest, "infinity")) {
        value = negative ? -HUGE_VAL : HUGE_VAL;
        return true;
    }
    if (equals_folded(rest, "nan")) {
        value = negative ? -std::nan("") : std::nan("");
        return true;
    }
    std::string number = negative ? "-" : "";
    bool const whole = digit_part(s, i, number);
    bool fraction = false;
    if (i < s.size() && s[i] == '.') {
        number += '.';
        ++i;
        fraction = digit_part(s, i, number);
    }
    if (!whole && !fraction) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        number += 'e';
        ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) number += s[i++];
        if (!digit_part(s, i, number)) return false;
    }
    if (i != s.size()) return false;
    value = std::strtod(number.c_str(), nullptr);
    return true;
}

std::string python_fixed6(double value) {
    if (std::isnan(value)) return "nan";
    char buffer[512];
    std::snprintf(buffer, sizeof buffer, "%.6f", value);
    return buffer;
}
