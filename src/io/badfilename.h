// The error every file reader (and the writers that check their file) throws.
#pragma once

#include <string>

#include "io/run_failure.h"

class badfilename : public run_failure {
public:
    explicit badfilename(std::string message) : run_failure(std::move(message), true) {}
    // "Error reading file " + file + ": " + text, the form every reader uses.
    badfilename(std::string const& file, std::string const& text)
        : run_failure("Error reading file " + file + ": " + text, true) {}
};
