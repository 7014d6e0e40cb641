// A failure that ends the run with status 1.
#pragma once

#include <string>
#include <utility>

#include "io/run_failure.h"

class run_error : public run_failure {
public:
    explicit run_error(std::string message) : run_failure(std::move(message), false) {}
};
