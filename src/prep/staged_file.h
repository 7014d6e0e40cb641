// One output file of ketra-prep, written under a hidden temporary name in its
// own folder and renamed to its name by commit(), so that a run that fails leaves
// no file behind. Plain text, or BGZF (block gzip) compressed by a pool of
// threads: gunzip and Ketra read it as any gzip file, and tabix-style tools
// can index it.
#pragma once

#include <string>

#include <htslib/bgzf.h>

class staged_file {
public:
    // Throws prep_error when the temporary file cannot be made.
    staged_file(std::string path, bool compressed);
    ~staged_file();  // removes the temporary file unless committed
    staged_file(staged_file const&) = delete;
    staged_file& operator=(staged_file const&) = delete;

    void write(std::string const& text);
    // Completes the file, puts it on the disk and gives it its name.
    void commit();
    std::string const& path() const { return path_; }

private:
    [[noreturn]] void fail(char const* what) const;

    std::string path_, temporary_;
    BGZF* out_ = nullptr;
    int sync_fd_ = -1;  // a second descriptor, to sync the file after BGZF closed its own
};
