#include "prep/vcf_input.h"

#include <sys/stat.h>

vcf_input::vcf_input(std::string path) : path_(std::move(path)) {}

vcf_input::~vcf_input() {
    if (reader_) {
        stderr_log::scope quiet(log_);
        bcf_sr_destroy(reader_);
    }
}

bool vcf_input::has_index(std::string const& path) {
    struct stat st;
    return ::stat((path + ".csi").c_str(), &st) == 0 || ::stat((path + ".tbi").c_str(), &st) == 0;
}

bool vcf_input::open(std::string const& region, int threads) {
    stderr_log::scope capture(log_);
    reader_ = bcf_sr_init();
    if (!region.empty()) {
        by_index_ = has_index(path_);
        if (by_index_) {
            bcf_sr_set_opt(reader_, BCF_SR_REGIONS_OVERLAP, 1);
            if (bcf_sr_set_regions(reader_, region.c_str(), 0) < 0) {
                failure_ = "Failed to read the regions: " + region + "\n";
                return false;
            }
        } else {
            bcf_sr_set_opt(reader_, BCF_SR_TARGETS_OVERLAP, 0);
            if (bcf_sr_set_targets(reader_, region.c_str(), 0, 0) < 0) {
                failure_ = "Failed to read the targets: " + region + "\n";
                return false;
            }
        }
    }
    if (threads > 0) bcf_sr_set_threads(reader_, threads);
    if (!bcf_sr_add_reader(reader_, path_.c_str())) {
        // For a file that did not open, the text is strerror(errno): taken first.
        std::string const reason = bcf_sr_strerror(reader_->errnum);
        failure_ = "Failed to read from " + (path_ == "-" ? std::string("standard input") : path_) + ": " + reason + "\n";
        return false;
    }
    return true;
}

bcf1_t* vcf_input::next() {
    stderr_log::scope capture(log_);
    if (!bcf_sr_next_line(reader_)) return nullptr;
    return bcf_sr_get_line(reader_, 0);
}

int vcf_input::error_code() const { return reader_ ? static_cast<int>(reader_->errnum) : 0; }

char const* vcf_input::error_text(int code) { return bcf_sr_strerror(code); }

bcf_hdr_t* vcf_input::header() const { return bcf_sr_get_header(reader_, 0); }
