// What htslib writes to stderr, kept aside per input file. The script this
// tool replaces ran bcftools and showed bcftools' stderr only inside its own
// error message; htslib's warnings and errors are kept the same way: each
// reader's calls write into that reader's log, and a message quotes it.
#pragma once

#include <cstddef>
#include <string>

class stderr_log {
public:
    stderr_log();
    ~stderr_log();
    stderr_log(stderr_log const&) = delete;
    stderr_log& operator=(stderr_log const&) = delete;

    // The bytes written so far; text(from) gives those written since.
    std::size_t size() const;
    std::string text(std::size_t from = 0) const;

    // While a scope lives, stderr goes into the log; the previous target is
    // put back at its end.
    class scope {
    public:
        explicit scope(stderr_log& log);
        ~scope();
        scope(scope const&) = delete;
        scope& operator=(scope const&) = delete;

    private:
        int previous_;
    };

private:
    int fd_;
};
