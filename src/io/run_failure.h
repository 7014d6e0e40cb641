// The base of the run's own failures that end it with a message and "Program
// terminated": the message to print, and whether the failure lies in the
// input data (a bad file or a bad tree), which ends a run with status 0
// unless -strict is given. Every other failure ends it with status 1.
#pragma once

#include <string>
#include <utility>

class run_failure {
public:
    std::string what() const { return message_; }
    bool is_data_failure() const { return data_failure_; }

protected:
    run_failure(std::string message, bool data_failure) : message_(std::move(message)), data_failure_(data_failure) {}

private:
    std::string message_;
    bool data_failure_;
};
