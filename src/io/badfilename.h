// The error every file reader (and the writers that check their file) throws.
#pragma once

#include <string>

class badfilename {
public:
    explicit badfilename(std::string message) : message_(std::move(message)) {}
    // "Error reading file " + file + ": " + text, the form every reader uses.
    badfilename(std::string const& file, std::string const& text)
        : message_("Error reading file " + file + ": " + text) {}
    std::string what() const { return message_; }

private:
    std::string message_;
};
