// A failure that ends ketra-prep with the one line "ketra-prep: <message>"
// and status 1; the message starts with the file it is about.
#pragma once

#include <string>

struct prep_error {
    std::string message;
};
