// A failure that ends ketra-prep with "ketra-prep: <message>" and status 1.
#pragma once

#include <string>

struct prep_error {
    std::string message;
};
