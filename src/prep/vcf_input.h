// One VCF/BCF file read through htslib's synced reader, record by record, in
// the same way bcftools read it for the script this tool replaces: with an
// index (.csi or .tbi next to the file) the region is a "regions" list
// (bcftools -r: jumps there, records overlapping it); without one a "targets"
// list (bcftools -t: streams through, records starting in it). htslib's
// stderr goes to the reader's own log.
#pragma once

#include <string>

#include <htslib/synced_bcf_reader.h>
#include <htslib/vcf.h>

#include "prep/stderr_log.h"

class vcf_input {
public:
    explicit vcf_input(std::string path);
    ~vcf_input();
    vcf_input(vcf_input const&) = delete;
    vcf_input& operator=(vcf_input const&) = delete;

    // Whether an index file sits next to the file (the script's test).
    static bool has_index(std::string const& path);

    // Opens the file with the region (empty: no region, the header only is
    // wanted). False when htslib refuses; then open_failure() is the text
    // bcftools printed.
    bool open(std::string const& region, int threads = 0);
    std::string const& open_failure() const { return failure_; }

    // The next record, or nullptr at the end. The record lives until the next call.
    bcf1_t* next();
    // The synced reader's error code, 0 when none (a record it could not
    // parse is skipped and leaves the code set).
    int error_code() const;
    static char const* error_text(int code);

    bcf_hdr_t* header() const;
    std::string const& path() const { return path_; }
    bool by_index() const { return by_index_; }
    stderr_log& log() { return log_; }

private:
    std::string path_;
    bcf_srs_t* reader_ = nullptr;
    bool by_index_ = false;
    std::string failure_;
    stderr_log log_;
};
