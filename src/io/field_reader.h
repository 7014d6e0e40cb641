// Reads the white-space separated fields of one line of text exactly as
// formatted extraction from a string stream over that line would: the same
// values, the same end-of-line and failure states, the same partial parses.
//
// Plain decimal numbers ("0", "0.25", "-3", "1e-05") are converted directly
// (std::from_chars, correctly rounded like the stream's conversion); the
// first field that is anything else hands the rest of the line to a real
// string stream, so odd text keeps the stream's own behaviour.
#pragma once

#include <memory>
#include <sstream>
#include <string>

// The blanks of the classic locale, which separate the fields of a line.
inline bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

class field_reader {
public:
    field_reader(char const* begin, char const* end) : p_(begin), end_(end) {}
    explicit field_reader(std::string const& line) : field_reader(line.data(), line.data() + line.size()) {}
    field_reader(field_reader const&) = delete;
    field_reader& operator=(field_reader const&) = delete;

    // Like `stream >> value`; false once the stream would have failed.
    bool read(double& value);
    bool read(std::string& word);

    bool eof() const { return stream_ ? stream_->eof() : eof_; }
    bool fail() const { return stream_ ? stream_->fail() : fail_; }
    bool good() const { return !eof() && !fail(); }

private:
    // Skips blanks; false (and end-of-line plus failure) when none is left.
    bool next_field();
    char const* field_end() const;
    void hand_over_to_stream();

    char const* p_;
    char const* end_;
    bool eof_ = false, fail_ = false;
    std::unique_ptr<std::istringstream> stream_;
};

// The value of a plain decimal number token [begin, end): optional sign,
// digits, optionally a point and digits, optionally an exponent; false for
// anything else, and for the rare tokens whose conversion the stream might
// treat differently (overflow, underflow to zero or below the normal range).
bool plain_decimal_value(char const* begin, char const* end, double& value);
