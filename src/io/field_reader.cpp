#include "io/field_reader.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace {

inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool plain_decimal_value(char const* begin, char const* end, double& value) {
    char const* p = begin;
    bool negative = false;
    if (p != end && (*p == '+' || *p == '-')) negative = *p++ == '-';
    char const* const digits = p;
    while (p != end && is_digit(*p)) ++p;
    if (p == digits) return false;
    // The commonest probabilities, single digits, need no conversion at all.
    if (p == end && p - digits == 1) {
        double const v = *digits - '0';
        value = negative ? -v : v;
        return true;
    }
    if (p != end && *p == '.') {
        char const* const fraction = ++p;
        while (p != end && is_digit(*p)) ++p;
        if (p == fraction) return false;
    }
    if (p != end && (*p == 'e' || *p == 'E')) {
        ++p;
        if (p != end && (*p == '+' || *p == '-')) ++p;
        char const* const exponent = p;
        while (p != end && is_digit(*p)) ++p;
        if (p == exponent) return false;
    }
    if (p != end) return false;
    double v = 0.0;
    auto const result = std::from_chars(digits, end, v);
    if (result.ec != std::errc() || result.ptr != end) return false;
    // from_chars reports a value that underflows to zero as out of range; one
    // that is merely subnormal it returns, and the stream would refuse it.
    if (!std::isfinite(v) || (v != 0.0 && std::fabs(v) < std::numeric_limits<double>::min()))
        return false;
    value = negative ? -v : v;
    return true;
}

bool field_reader::next_field() {
    if (fail_) return false;
    while (p_ != end_ && is_blank(*p_)) ++p_;
    if (p_ == end_) {
        eof_ = fail_ = true;
        return false;
    }
    return true;
}

char const* field_reader::field_end() const {
    char const* q = p_;
    while (q != end_ && !is_blank(*q)) ++q;
    return q;
}

void field_reader::hand_over_to_stream() {
    stream_ = std::make_unique<std::istringstream>(std::string(p_, end_));
    p_ = end_;
}

bool field_reader::read(double& value) {
    if (stream_) return static_cast<bool>(*stream_ >> value);
    if (!next_field()) return false;
    char const* const q = field_end();
    if (plain_decimal_value(p_, q, value)) {
        p_ = q;
        eof_ = p_ == end_;
        return true;
    }
    hand_over_to_stream();
    return static_cast<bool>(*stream_ >> value);
}

bool field_reader::read(std::string& word) {
    if (stream_) return static_cast<bool>(*stream_ >> word);
    if (!next_field()) return false;
    char const* const q = field_end();
    word.assign(p_, q);
    p_ = q;
    eof_ = p_ == end_;
    return true;
}
