#include "prep/vcf_input.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "prep/prep_error.h"

namespace {

bool has_index(std::string const& path) {
    struct stat st;
    return ::stat((path + ".csi").c_str(), &st) == 0 || ::stat((path + ".tbi").c_str(), &st) == 0;
}

// What went wrong, for the reader's error codes.
std::string cause_of(int code) {
    switch (code) {
        case open_failed: return std::string("cannot open the file (") + std::strerror(errno) + ")";
        case not_bgzf: return "has an index but is not compressed with bgzip; compress it again or remove the index";
        case idx_load_failed: return "cannot read its index; index it again";
        case file_type_error: return "is neither VCF nor BCF";
        case header_error: return "cannot read the header";
        case no_eof: return "the file is truncated (no end-of-file block); fetch or write it again";
        case no_memory: return "out of memory";
        default: return "the file is truncated or corrupt";
    }
}

}  // namespace

region_bounds parse_region(std::string const& text) {
    auto const bad = [&](char const* cause) { return prep_error{"-region " + text + ": " + cause}; };
    auto const colon = text.rfind(':');
    if (colon == std::string::npos) throw bad("not CHROM:FROM-TO");
    region_bounds r;
    r.chrom = text.substr(0, colon);
    std::string numbers[2];
    int part = 0;
    for (char c : text.substr(colon + 1)) {
        if (c == '-' && part == 0) {
            part = 1;
        } else if (c >= '0' && c <= '9') {
            numbers[part] += c;
        } else if (c != ',') {
            throw bad("not CHROM:FROM-TO");
        }
    }
    if (part != 1 || numbers[0].empty() || numbers[1].empty() || numbers[0].size() > 18 || numbers[1].size() > 18)
        throw bad("not CHROM:FROM-TO");
    r.lo = std::stoll(numbers[0]);
    r.hi = std::stoll(numbers[1]);
    if (r.lo > r.hi) throw bad("ends before it starts");
    r.text = r.chrom + ":" + std::to_string(r.lo) + "-" + std::to_string(r.hi);
    return r;
}

vcf_input::vcf_input(std::string path, std::string const& region) : path_(std::move(path)), reader_(bcf_sr_init()) {
    if (has_index(path_)) {
        bcf_sr_set_opt(reader_.get(), BCF_SR_REGIONS_OVERLAP, 1);
        if (bcf_sr_set_regions(reader_.get(), region.c_str(), 0) < 0) fail("cannot set the region " + region);
    } else {
        bcf_sr_set_opt(reader_.get(), BCF_SR_TARGETS_OVERLAP, 0);
        if (bcf_sr_set_targets(reader_.get(), region.c_str(), 0, 0) < 0) fail("cannot set the region " + region);
    }
    errno = 0;
    if (!bcf_sr_add_reader(reader_.get(), path_.c_str()) || reader_->errnum) fail(cause_of(reader_->errnum));
}


void vcf_input::fail(std::string const& cause) const { throw prep_error{path_ + ": " + cause}; }

std::string vcf_input::at(bcf1_t const* rec) const {
    return path_ + ": " + bcf_seqname_safe(header(), rec) + ":" + std::to_string(rec->pos + 1) + ": ";
}

bcf1_t* vcf_input::next() {
    bcf1_t* rec = bcf_sr_next_line(reader_.get()) > 0 ? bcf_sr_get_line(reader_.get(), 0) : nullptr;
    std::string const here = rec ? bcf_seqname_safe(header(), rec) + (":" + std::to_string(rec->pos + 1)) : "";
    if (reader_->errnum) {
        // The reader reads ahead and skips a record it cannot parse: the fault
        // lies after the record it hands out now.
        std::string const after = rec ? here : last_;
        fail((reader_->errnum == vcf_parse_error ? "a record cannot be parsed" : cause_of(reader_->errnum)) +
             (after.empty() ? std::string(" at the start of the region") : " after " + after));
    }
    if (!rec) return nullptr;
    if (rec->rid == last_rid_ && rec->pos < last_pos_)
        fail(here + " comes after " + last_ + "; the file must be sorted by position");
    last_rid_ = rec->rid;
    last_pos_ = rec->pos;
    last_ = here;
    return rec;
}
