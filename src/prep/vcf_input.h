// One VCF/BCF file read through htslib's synced reader, record by record, for
// one region: with an index (.csi or .tbi next to the file) it jumps there and
// takes the records that overlap the region; without one it streams through
// the file and takes the records that start in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <htslib/synced_bcf_reader.h>
#include <htslib/vcf.h>

// A region, CHROM:FROM-TO with both ends included.
struct region_bounds {
    std::string chrom;
    std::int64_t lo = 0, hi = 0;
    std::string text;  // CHROM:FROM-TO as handed to the readers
};

// The region of -region (commas allowed in the numbers); throws prep_error.
region_bounds parse_region(std::string const& text);

class vcf_input {
public:
    // Opens the file for the region (CHROM:FROM-TO); throws prep_error.
    vcf_input(std::string path, std::string const& region);
    vcf_input(vcf_input const&) = delete;
    vcf_input& operator=(vcf_input const&) = delete;

    // The next record, or nullptr at the end; it lives until the next call.
    // Throws prep_error when the file cannot be read or is not sorted.
    bcf1_t* next();

    bcf_hdr_t* header() const { return bcf_sr_get_header(reader_.get(), 0); }
    // "<file>: <chrom>:<pos>: ", how a message about the record starts.
    std::string at(bcf1_t const* rec) const;

private:
    [[noreturn]] void fail(std::string const& cause) const;

    std::string path_;
    // Held so that a constructor that fails half way still closes it.
    struct reader_closer {
        void operator()(bcf_srs_t* reader) const { bcf_sr_destroy(reader); }
    };
    std::unique_ptr<bcf_srs_t, reader_closer> reader_;
    std::string last_;  // chrom:pos of the last record read, or empty
    int last_rid_ = -1;
    std::int64_t last_pos_ = -1;
};
