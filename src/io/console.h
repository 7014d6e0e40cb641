// The console's one formatting rule for counts and labelled values: the label
// right-aligned in a field of 60 characters, the value straight after it.
#pragma once

#include <iomanip>
#include <ostream>
#include <string>

inline std::ostream& label_60(std::ostream& os, std::string const& label) {
    return os << std::right << std::setw(60) << label;
}

// One whole count line: label, value, end of line.
template <class T>
void print_count(std::ostream& os, std::string const& label, T const& value) {
    label_60(os, label) << value << '\n';
}
