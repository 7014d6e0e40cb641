// A failure that ends the run with status 1.
#pragma once

#include <string>
#include <utility>

class run_error {
public:
    explicit run_error(std::string message) : message_(std::move(message)) {}
    std::string what() const { return message_; }

private:
    std::string message_;
};
