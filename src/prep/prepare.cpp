#include "prep/prepare.h"

#include <stdlib.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <htslib/hts.h>
#include <htslib/kstring.h>
#include <htslib/vcf.h>

#include "io/console.h"
#include "io/output_file.h"
#include "prep/genetic_map.h"
#include "prep/gzip_writer.h"
#include "prep/plink.h"
#include "prep/prep_error.h"
#include "prep/python_text.h"
#include "prep/vcf_input.h"

namespace {

// bcftools view wrote the study into a pipe in blocks of this many bytes; an
// error before the first block was full left the reading side with nothing.
constexpr std::size_t pipe_block = 0xff00;

struct region_bounds {
    std::string chrom;
    std::int64_t lo = 0, hi = 0;
    std::string text;  // CHROM:FROM-TO as handed to the readers
};

region_bounds parse_region(std::string const& text) {
    auto const bad = [&] { return prep_error{"region " + python_repr(text) + " is not CHROM:FROM-TO"}; };
    auto const colon = text.rfind(':');
    if (colon == std::string::npos) throw bad();
    region_bounds r;
    r.chrom = text.substr(0, colon);
    std::string const span = text.substr(colon + 1);
    std::vector<std::string> parts(1);
    for (char c : span) {
        if (c == '-') {
            parts.emplace_back();
        } else if (c != ',') {
            parts.back() += c;
        }
    }
    if (parts.size() != 2) throw bad();
    std::string canonical[2];
    if (!python_int(parts[0], r.lo, canonical[0]) || !python_int(parts[1], r.hi, canonical[1])) throw bad();
    if (r.lo > r.hi) throw prep_error{"region " + python_repr(text) + " ends before it starts"};
    r.text = r.chrom + ":" + canonical[0] + "-" + canonical[1];
    return r;
}

bool is_base(char const* allele) {
    return allele[0] != '\0' && allele[1] == '\0' &&
           (allele[0] == 'A' || allele[0] == 'C' || allele[0] == 'G' || allele[0] == 'T');
}

char complement(char base) {
    switch (base) {
        case 'A': return 'T';
        case 'T': return 'A';
        case 'C': return 'G';
        default: return 'C';
    }
}

enum class kind { snp, multi, other };

kind snp_kind(bcf1_t const* rec) {
    if (rec->n_allele > 2) return kind::multi;
    if (rec->n_allele < 2 || !is_base(rec->d.allele[0]) || !is_base(rec->d.allele[1])) return kind::other;
    return kind::snp;
}

enum category { same, swapped, complementary, ambiguous, mismatch };

// The category of study alleles (s0, s1) against the panel's (p0, p1), and
// whether the study's order is the reverse of the panel's.
category classify(char p0, char p1, char s0, char s1, bool& reorder) {
    reorder = false;
    if (complement(p0) == p1) {
        // A/T and C/G read the same on both strands: taken as the same strand.
        if (s0 == p0 && s1 == p1) return ambiguous;
        if (s1 == p0 && s0 == p1) return reorder = true, ambiguous;
        return mismatch;
    }
    if (s0 == p0 && s1 == p1) return same;
    if (s1 == p0 && s0 == p1) return reorder = true, swapped;
    if (complement(s0) == p0 && complement(s1) == p1) return complementary;
    if (complement(s1) == p0 && complement(s0) == p1) return reorder = true, complementary;
    return mismatch;
}

// bcftools' text of one sample's GT (its %GT).
std::string gt_text(bcf_hdr_t* header, bcf1_t* rec, int sample) {
    bcf_fmt_t* fmt = bcf_get_fmt(header, rec, "GT");
    if (!fmt) return ".";
    kstring_t s = KS_INITIALIZE;
    bcf_format_gt(fmt, sample, &s);
    std::string text(s.s ? s.s : "", s.l);
    ks_free(&s);
    return text;
}

// The code of a diploid call of alleles 0/1 (0, 1, 2: the number of 1s),
// or 3 when the call is anything else (missing, haploid, other alleles).
inline int call_code(std::int32_t const* g, int ploidy) {
    if (ploidy < 2 || g[1] == bcf_int32_vector_end) return 3;
    if (ploidy > 2 && g[2] != bcf_int32_vector_end) return 3;
    int const a0 = (g[0] >> 1) - 1, a1 = (g[1] >> 1) - 1;
    if (a0 < 0 || a0 > 1 || a1 < 0 || a1 > 1) return 3;
    return a0 + a1;
}

std::string const triple_text[4] = {"1 0 0", "0 1 0", "0 0 1", "0.333333 0.333333 0.333333"};

void say(std::ostream& out, char const* label, long long value) { print_count(out, label, value); }

struct counts {
    long long read = 0, multi = 0, other = 0, duplicate = 0;
};

struct study_counts : counts {
    long long not_in_panel = 0, ambiguous_dropped = 0, written = 0;
    std::array<long long, 5> by_category{};
};

// Where a study error surfaced in the script: before the line that announces
// the study genotypes (listing the samples) or after it (reading them).
enum class stage { samples, records };

struct held_error {
    stage when;
    std::string message;
};

// The text of bcftools' stderr in a message: "bcftools could not read X: ..."
std::string bcftools_message(std::string const& path, std::string const& stderr_text) {
    return "bcftools could not read " + path + ": " + std::string(python_strip(stderr_text));
}

// Floats as bcftools prints them (htslib's own formatting), remembered by bit pattern.
class float_texts {
public:
    std::string const& text(std::uint32_t bits) {
        std::size_t const slot = (bits * 2654435761u) >> 20;  // 4096 slots
        entry& e = table_[slot];
        if (!e.used || e.bits != bits) {
            kstring_t s = KS_INITIALIZE;
            bcf_fmt_array(&s, 1, BCF_BT_FLOAT, &bits);
            e.text.assign(s.s ? s.s : "", s.l);
            ks_free(&s);
            e.bits = bits;
            e.used = true;
        }
        return e.text;
    }

private:
    struct entry {
        std::uint32_t bits = 0;
        bool used = false;
        std::string text;
    };
    std::array<entry, 4096> table_;
};

class preparation {
public:
    preparation(prep_options const& options, std::ostream& out) : o_(options), out_(out) {}

    int run();

private:
    void open_outputs();
    void read_all();
    void panel_record(bcf1_t* rec);
    void study_record(bcf1_t* rec);
    std::vector<std::string> select_samples();
    std::string view_log() const;
    std::string view_failure(std::string const& lines) const;
    void hold(stage when, std::string message);
    void append_probabilities(bcf1_t* rec, bool reverse, std::int64_t pos);
    void finish_outputs();

    prep_options const& o_;
    std::ostream& out_;
    region_bounds region_;
    std::string study_path_;
    bool is_bgen_ = false;
    bool use_gp_ = false;
    std::string gen_name_;

    std::unique_ptr<vcf_input> panel_, study_;
    std::optional<held_error> study_error_;
    bool study_reading_ = false;

    // The panel SNP kept at the position being read, if any.
    std::int64_t position_ = -1;
    bool panel_at_position_ = false;
    std::string panel_id_;
    char panel_a0_ = 0, panel_a1_ = 0;
    bool study_at_position_ = false;
    std::int64_t last_panel_pos_ = -1, last_study_pos_ = -1;

    counts panel_counts_;
    long long panel_kept_ = 0;
    long long haplotypes_ = 0;
    study_counts study_counts_;
    std::vector<int> selected_;       // the study samples written, as header indices
    bool subset_ = false;             // -samples given: bcftools view subset the study
    std::size_t open_log_end_ = 0;    // the study log's length once the file was open
    std::size_t view_bytes_ = 0;      // what bcftools view would have written so far

    std::unique_ptr<output_file> legend_, hap_, gen_, sample_, strand_, map_;
    std::unique_ptr<python_gzip_writer> gen_gzip_;

    // htslib's buffer for the calls of a record (it reallocates it with realloc()).
    struct call_buffer {
        std::int32_t* data = nullptr;
        int capacity = 0;
        ~call_buffer() { free(data); }
    } gt_;
    std::string line_;
    float_texts floats_;
};

void preparation::hold(stage when, std::string message) {
    if (!study_error_) study_error_ = held_error{when, std::move(message)};
    study_reading_ = false;
}

void preparation::open_outputs() {
    std::string const& p = *o_.output;
    gen_name_ = p + (o_.plain ? ".gen" : ".gen.gz");
    legend_ = std::make_unique<output_file>(p + ".legend", output_file::mode::truncate, false);
    hap_ = std::make_unique<output_file>(p + ".hap", output_file::mode::truncate, false);
    gen_ = std::make_unique<output_file>(gen_name_, output_file::mode::truncate, false);
    if (!o_.plain) gen_gzip_ = std::make_unique<python_gzip_writer>(*gen_, gen_name_);
    sample_ = std::make_unique<output_file>(p + ".sample", output_file::mode::truncate, false);
    strand_ = std::make_unique<output_file>(p + ".strand", output_file::mode::truncate, false);
    map_ = std::make_unique<output_file>(p + ".map", output_file::mode::truncate, false);
    legend_->write("id position a0 a1\n");
}

// The study samples as `bcftools query -l [-S file]` listed them (header
// order), and the check `bcftools view -S file` added (no name twice). The
// study is still read whole: bcftools view looked at every sample's calls.
std::vector<std::string> preparation::select_samples() {
    bcf_hdr_t* header = study_->header();
    std::vector<std::string> names;
    if (!o_.samples || o_.samples->empty()) {
        for (int i = 0; i < bcf_hdr_nsamples(header); ++i) {
            names.emplace_back(header->samples[i]);
            selected_.push_back(i);
        }
        return names;
    }
    subset_ = true;
    std::string const& file = *o_.samples;
    bcf_hdr_t* subset = bcf_hdr_dup(header);
    int result;
    {
        stderr_log::scope capture(study_->log());
        result = bcf_hdr_set_samples(subset, file.c_str(), 1);
    }
    if (result == 0) {
        for (int i = 0; i < bcf_hdr_nsamples(subset); ++i) {
            names.emplace_back(subset->samples[i]);
            selected_.push_back(bcf_hdr_id2int(header, BCF_DT_SAMPLE, subset->samples[i]));
        }
    }
    bcf_hdr_destroy(subset);
    if (result < 0) {
        hold(stage::samples, bcftools_message(study_path_, study_->log().text() + "Error: failed to read " + file + "\n"));
        return {};
    }
    if (result > 0) {
        hold(stage::samples, bcftools_message(study_path_, study_->log().text() + "Error: sample #" +
                                                               std::to_string(result) +
                                                               " not found in the header, user --force-samples to "
                                                               "proceed anyway\n"));
        return {};
    }
    int n = 0;
    char** list = hts_readlist(file.c_str(), 1, &n);
    std::string duplicate;
    bool found = false;
    for (int i = 0; i < n && !found; ++i)
        for (int j = 0; j < i && !found; ++j)
            if (std::strcmp(list[i], list[j]) == 0) found = true, duplicate = list[i];
    for (int i = 0; i < n; ++i) free(list[i]);
    free(list);
    if (found) {
        hold(stage::records, bcftools_message(study_path_, study_->log().text() +
                                                               "[E::bcf_hdr_subset] Duplicate sample name \"" +
                                                               duplicate +
                                                               "\"\nError occurred while subsetting samples\n"
                                                               "Failed to read from standard input: unknown file "
                                                               "type\n"));
    }
    return names;
}

// What bcftools view printed on stderr while it read the study.
std::string preparation::view_log() const {
    std::string const all = study_->log().text();
    std::string text = all.substr(0, open_log_end_);
    if (subset_ && selected_.empty()) text += "Warn: subsetting has removed all samples\n";
    return text + all.substr(std::min(open_log_end_, all.size()));
}

// The message of bcftools view stopping with these lines; the reading side
// then found nothing when view had not yet filled its first block.
std::string preparation::view_failure(std::string const& lines) const {
    return bcftools_message(study_path_, view_log() + lines +
                                             (view_bytes_ < pipe_block
                                                  ? "Failed to read from standard input: unknown file type\n"
                                                  : ""));
}

void preparation::panel_record(bcf1_t* rec) {
    bcf_hdr_t* header = panel_->header();
    std::int64_t const pos = rec->pos + 1;
    if (pos < last_panel_pos_)
        throw prep_error{o_.ref.value() + ": position " + std::to_string(pos) + " comes after position " +
                         std::to_string(last_panel_pos_) + "; the file must be sorted by position"};
    last_panel_pos_ = pos;
    ++panel_counts_.read;
    bcf_unpack(rec, BCF_UN_STR);
    kind const k = snp_kind(rec);
    if (k != kind::snp) {
        ++(k == kind::multi ? panel_counts_.multi : panel_counts_.other);
        return;
    }
    if (panel_at_position_) {
        ++panel_counts_.duplicate;
        return;
    }
    int const n = bcf_hdr_nsamples(header);
    int const total = n > 0 ? bcf_get_genotypes(header, rec, &gt_.data, &gt_.capacity) : 0;
    int const ploidy = n > 0 && total > 0 ? total / n : 0;
    auto const not_phased = [&](std::string const& call) {
        return prep_error{o_.ref.value() + ": genotype " + python_repr(call) + " at position " + std::to_string(pos) +
                          " is not a phased biallelic call (the reference panel must be phased and complete)"};
    };
    line_.clear();
    for (int i = 0; i < n; ++i) {
        char c0, c1;
        std::int32_t const* g = ploidy > 0 ? gt_.data + static_cast<std::size_t>(i) * ploidy : nullptr;
        int const a0 = g && ploidy >= 2 ? (g[0] >> 1) - 1 : -1;
        int const a1 = g && ploidy >= 2 && g[1] != bcf_int32_vector_end ? (g[1] >> 1) - 1 : -1;
        if (g && ploidy >= 2 && g[1] != bcf_int32_vector_end && (ploidy == 2 || g[2] == bcf_int32_vector_end) &&
            a0 >= 0 && a0 <= 1 && a1 >= 0 && a1 <= 1) {
            if (!(g[1] & 1) && a0 != a1) throw not_phased(gt_text(header, rec, i));
            c0 = static_cast<char>('0' + a0);
            c1 = static_cast<char>('0' + a1);
        } else {
            // Anything else is judged on bcftools' text, as the script did.
            std::string const t = gt_text(header, rec, i);
            if (t.size() != 3 || (t[0] != '0' && t[0] != '1') || (t[2] != '0' && t[2] != '1') ||
                (t[1] != '|' && t[0] != t[2]))
                throw not_phased(t);
            c0 = t[0];
            c1 = t[2];
        }
        if (i > 0) line_ += ' ';
        line_ += c0;
        line_ += ' ';
        line_ += c1;
    }
    line_ += '\n';
    hap_->write(line_);
    if (panel_kept_ == 0) haplotypes_ = 2LL * n;
    ++panel_kept_;
    std::string const id = rec->d.id && std::strcmp(rec->d.id, ".") != 0
                               ? std::string(rec->d.id)
                               : region_.text.substr(0, region_.text.find(':')) + ":" + std::to_string(pos);
    line_ = id + " " + std::to_string(pos) + " " + rec->d.allele[0] + " " + rec->d.allele[1] + "\n";
    legend_->write(line_);
    panel_at_position_ = true;
    panel_id_ = id;
    panel_a0_ = rec->d.allele[0][0];
    panel_a1_ = rec->d.allele[1][0];
}

void preparation::append_probabilities(bcf1_t* rec, bool reverse, std::int64_t pos) {
    bcf_hdr_t* header = study_->header();
    int const n = bcf_hdr_nsamples(header);
    if (selected_.empty()) return;
    int const total = bcf_get_genotypes(header, rec, &gt_.data, &gt_.capacity);
    int const ploidy = total > 0 ? total / n : 0;
    // The triple of sample i's hard call, turned round with the alleles.
    auto const append_call = [&](int i) {
        int const c = ploidy > 0 ? call_code(gt_.data + static_cast<std::size_t>(i) * ploidy, ploidy) : 3;
        line_ += triple_text[reverse && c < 3 ? 2 - c : c];
    };
    bcf_fmt_t* gp = use_gp_ ? bcf_get_fmt(header, rec, "GP") : nullptr;
    for (int const i : selected_) {
        line_ += ' ';
        if (!gp) {
            append_call(i);
            continue;
        }
        std::uint8_t const* p = gp->p + static_cast<std::size_t>(i) * gp->size;
        std::uint32_t values[3];
        int count = 0;
        bool missing = false;
        std::string text;  // bcftools' text of the GP, when not plain floats
        if (gp->type == BCF_BT_FLOAT) {
            for (int j = 0; j < gp->n; ++j) {
                std::uint32_t bits;
                std::memcpy(&bits, p + 4 * j, 4);
                if (bits == bcf_float_vector_end) break;
                if (bits == bcf_float_missing) missing = true;
                if (count < 3) values[count] = bits;
                ++count;
            }
        } else {
            kstring_t s = KS_INITIALIZE;
            bcf_fmt_array(&s, gp->n, gp->type, const_cast<std::uint8_t*>(p));
            text.assign(s.s ? s.s : "", s.l);
            ks_free(&s);
        }
        if (gp->type == BCF_BT_FLOAT) {
            if (count == 0 || (count == 1 && missing)) {  // "" or "."
                append_call(i);
            } else if (missing) {
                line_ += triple_text[3];
            } else if (count != 3) {
                kstring_t s = KS_INITIALIZE;
                bcf_fmt_array(&s, gp->n, gp->type, const_cast<std::uint8_t*>(p));
                std::string const t(s.s ? s.s : "", s.l);
                ks_free(&s);
                throw prep_error{study_path_ + ": GP " + python_repr(t) + " at position " + std::to_string(pos) +
                                 " does not hold three probabilities"};
            } else {
                for (int k = 0; k < 3; ++k) {
                    if (k) line_ += ' ';
                    line_ += floats_.text(values[reverse ? 2 - k : k]);
                }
            }
            continue;
        }
        // Any other type: the script's rules on the text.
        if (text.empty() || text == ".") {
            append_call(i);
            continue;
        }
        std::vector<std::string> parts(1);
        for (char c : text) {
            if (c == ',') {
                parts.emplace_back();
            } else {
                parts.back() += c;
            }
        }
        bool dot = false;
        for (auto const& part : parts) dot |= part == ".";
        if (dot) {
            line_ += triple_text[3];
        } else if (parts.size() != 3) {
            throw prep_error{study_path_ + ": GP " + python_repr(text) + " at position " + std::to_string(pos) +
                             " does not hold three probabilities"};
        } else {
            for (int k = 0; k < 3; ++k) {
                if (k) line_ += ' ';
                line_ += parts[static_cast<std::size_t>(reverse ? 2 - k : k)];
            }
        }
    }
}

void preparation::study_record(bcf1_t* rec) {
    std::int64_t const pos = rec->pos + 1;
    if (pos < last_study_pos_) {
        hold(stage::records, study_path_ + ": position " + std::to_string(pos) + " comes after position " +
                                 std::to_string(last_study_pos_) + "; the file must be sorted by position");
        return;
    }
    last_study_pos_ = pos;
    if (subset_) {
        // bcftools view counted the alleles of every sample's call and
        // stopped at an allele the record does not have.
        bcf_hdr_t* header = study_->header();
        int const n = bcf_hdr_nsamples(header);
        int const total = n > 0 ? bcf_get_genotypes(header, rec, &gt_.data, &gt_.capacity) : 0;
        int const ploidy = n > 0 && total > 0 ? total / n : 0;
        for (int i = 0; i < n && ploidy > 0; ++i) {
            std::int32_t const* g = gt_.data + static_cast<std::size_t>(i) * ploidy;
            for (int k = 0; k < ploidy && g[k] != bcf_int32_vector_end; ++k) {
                if (bcf_gt_is_missing(g[k])) continue;
                int const allele = bcf_gt_allele(g[k]);
                if (allele >= rec->n_allele) {
                    hold(stage::records, view_failure("[E::bcf_calc_ac] Incorrect allele (\"" + std::to_string(allele) +
                                                      "\") in " + header->samples[i] + " at " +
                                                      bcf_seqname_safe(header, rec) + ":" + std::to_string(pos) + "\n"));
                    return;
                }
            }
        }
    }
    if (rec->errcode != 0) {
        // bcftools view refused to write a record its header does not declare.
        hold(stage::records, view_failure("[E::bcf_write] Unchecked error (" + std::to_string(rec->errcode) + ") at " +
                                          bcf_seqname_safe(study_->header(), rec) + ":" + std::to_string(pos) +
                                          "\n[main_vcfview] Error: cannot write to (null)\n"));
        return;
    }
    {
        int const n = bcf_hdr_nsamples(study_->header());
        std::size_t const indiv = n > 0 ? rec->indiv.l * selected_.size() / static_cast<std::size_t>(n) : 0;
        view_bytes_ += 8 + rec->shared.l + indiv;
    }
    ++study_counts_.read;
    bcf_unpack(rec, BCF_UN_STR);
    kind const k = snp_kind(rec);
    if (k != kind::snp) {
        ++(k == kind::multi ? study_counts_.multi : study_counts_.other);
        return;
    }
    if (!panel_at_position_ || pos != position_) {
        ++study_counts_.not_in_panel;
        return;
    }
    if (study_at_position_) {
        ++study_counts_.duplicate;
        return;
    }
    char s0 = rec->d.allele[0][0], s1 = rec->d.allele[1][0];
    bool reorder = false;
    category const c = classify(panel_a0_, panel_a1_, s0, s1, reorder);
    if (c == ambiguous && o_.drop_ambiguous) {
        ++study_counts_.ambiguous_dropped;
        return;
    }
    ++study_counts_.by_category[c];
    if (c == mismatch) return;
    if (reorder) std::swap(s0, s1);
    std::string const position_text = std::to_string(pos);
    line_.clear();  // keeps its capacity for the genotypes that follow
    line_ += region_.chrom + ':' + position_text + '_' + s0 + '_' + s1 + ' ' + panel_id_ + ' ' + position_text + ' ' +
             s0 + ' ' + s1;
    if (selected_.empty()) line_ += ' ';
    append_probabilities(rec, reorder, pos);
    line_ += '\n';
    if (c == complementary) strand_->write(position_text + " -\n");
    study_at_position_ = true;
    ++study_counts_.written;
    if (gen_gzip_) {
        gen_gzip_->write(line_);
    } else {
        gen_->write(line_);
    }
}

// Both files side by side, one position at a time: the panel's records at a
// position first (the SNP kept there is what the study's records meet), then
// the study's.
void preparation::read_all() {
    bcf1_t* p = panel_->next();
    bcf1_t* s = study_reading_ ? study_->next() : nullptr;
    while (p || s) {
        std::int64_t const x = p && (!s || p->pos <= s->pos) ? p->pos : s->pos;
        position_ = x + 1;
        panel_at_position_ = false;
        study_at_position_ = false;
        // A record out of order is reported by panel_record / study_record.
        while (p && p->pos <= x) {
            panel_record(p);
            p = panel_->next();
        }
        while (s && s->pos <= x && study_reading_) {
            try {
                study_record(s);
            } catch (prep_error& e) {
                hold(stage::records, e.message);
            }
            if (study_reading_) s = study_->next();
        }
        if (!study_reading_) s = nullptr;
    }
    if (study_reading_ && study_->error_code() != 0) {
        // A record htslib could not parse was skipped; bcftools view said so at its end.
        // It had written and closed its output by then.
        hold(stage::records, bcftools_message(study_path_, view_log() + "Error: " +
                                                               vcf_input::error_text(study_->error_code()) + "\n"));
    }
}

void preparation::finish_outputs() {
    if (gen_gzip_) gen_gzip_->finish();
    for (auto* f : {legend_.get(), hap_.get(), gen_.get(), sample_.get(), strand_.get(), map_.get()}) {
        f->require_open();
        f->finish();
    }
}

int preparation::run() {
    region_ = parse_region(*o_.region);
    std::string const& prefix = *o_.output;
    auto const slash = prefix.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        boost::system::error_code error;
        boost::filesystem::create_directories(prefix.substr(0, slash), error);
        if (error) throw prep_error{prefix.substr(0, slash) + ": " + error.message()};
    }
    output_file::set_whole_files_only(true);

    // The scratch folder of plink2's output, removed at the end.
    struct scratch {
        std::string path;
        ~scratch() {
            if (path.empty()) return;
            boost::system::error_code ignored;
            boost::filesystem::remove_all(path, ignored);
        }
    } work;

    is_bgen_ = o_.bgen && !o_.bgen->empty();
    study_path_ = is_bgen_ ? std::string() : o_.study.value_or("");
    if (is_bgen_) {
        out_ << "converting " << *o_.bgen << " with plink2 ... " << std::flush;
        char const* dir = std::getenv("TMPDIR");
        std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/ketra-prep.XXXXXX";
        if (!::mkdtemp(&pattern[0])) throw prep_error{"cannot make a temporary folder in " + pattern};
        work.path = pattern;
        study_path_ = bgen_to_vcf(*o_.bgen, o_.bgen_sample.value_or(""), work.path);
        out_ << "done\n";
    }
    use_gp_ = !o_.gt;
    if (use_gp_) {
        vcf_input check(study_path_);
        if (!check.open("")) throw prep_error{bcftools_message(study_path_, check.log().text() + check.open_failure())};
        kstring_t text = KS_INITIALIZE;
        {
            stderr_log::scope capture(check.log());
            bcf_hdr_format(check.header(), 0, &text);
        }
        bool const has_gp = text.s && std::strstr(text.s, "##FORMAT=<ID=GP,") != nullptr;
        ks_free(&text);
        if (!has_gp) {
            if (!is_bgen_) throw prep_error{o_.study.value_or("") + " has no GP field; use -gt for hard calls"};
            use_gp_ = false;  // plink2 writes GP only when some probability is not a hard call
        }
    }

    out_ << "reading reference panel " << *o_.ref << " in " << region_.text << " ... " << std::flush;
    open_outputs();
    panel_ = std::make_unique<vcf_input>(*o_.ref);
    if (!panel_->open(region_.text))
        throw prep_error{bcftools_message(*o_.ref, panel_->log().text() + panel_->open_failure())};

    study_ = std::make_unique<vcf_input>(study_path_);
    std::vector<std::string> samples;
    if (!study_->open(region_.text)) {
        bool const index_failed = study_->by_index() && study_->error_code() == idx_load_failed;
        hold(index_failed ? stage::records : stage::samples,
             bcftools_message(study_path_, study_->log().text() + study_->open_failure() +
                                               (index_failed ? "Failed to read from standard input: unknown file type\n"
                                                             : "")));
    } else {
        study_reading_ = true;
        open_log_end_ = study_->log().size();
        samples = select_samples();
        kstring_t text = KS_INITIALIZE;
        bcf_hdr_format(study_->header(), 1, &text);
        // The header as view wrote it, with its own two lines (about 160 bytes and the path).
        view_bytes_ = 9 + text.l + 1 + 160 + 2 * study_path_.size();
        ks_free(&text);
    }
    std::string sample_text = "ID_1 ID_2 missing\n0 0 0\n";
    for (auto const& s : samples) sample_text += s + " " + s + " 0\n";
    sample_->write(sample_text);

    read_all();
    if (panel_kept_ == 0) throw prep_error{*o_.ref + ": no biallelic SNP in region " + region_.text};
    out_ << "done\n";
    say(out_, "reference sites read: ", panel_counts_.read);
    say(out_, "multi-allelic sites dropped: ", panel_counts_.multi);
    say(out_, "non-SNP sites dropped: ", panel_counts_.other);
    if (panel_counts_.duplicate) say(out_, "SNPs at a position already seen dropped: ", panel_counts_.duplicate);
    say(out_, "reference SNPs kept: ", panel_kept_);
    say(out_, "reference haplotypes: ", haplotypes_);

    if (study_error_ && study_error_->when == stage::samples) throw prep_error{study_error_->message};
    out_ << "\nreading study genotypes (" << (use_gp_ ? "GP" : "GT") << ") from "
         << (is_bgen_ ? *o_.bgen : o_.study.value_or("")) << " ... " << std::flush;
    if (study_error_) throw prep_error{study_error_->message};
    out_ << "done\n";
    auto const& c = study_counts_;
    say(out_, "study records read: ", c.read);
    say(out_, "multi-allelic sites dropped: ", c.multi);
    say(out_, "non-SNP sites dropped: ", c.other);
    say(out_, "SNPs not in the reference panel dropped: ", c.not_in_panel);
    if (c.duplicate) say(out_, "SNPs at a position already seen dropped: ", c.duplicate);
    say(out_, "same alleles, same order (kept): ", c.by_category[same]);
    say(out_, "same alleles, swapped (kept, probabilities reordered): ", c.by_category[swapped]);
    say(out_, "complementary alleles (kept, strand file entry): ", c.by_category[complementary]);
    say(out_, "other alleles (dropped): ", c.by_category[mismatch]);
    if (o_.drop_ambiguous) {
        say(out_, "A/T or C/G SNPs (dropped): ", c.ambiguous_dropped);
    } else {
        say(out_, "A/T or C/G SNPs (kept as the same strand): ", c.by_category[ambiguous]);
    }
    say(out_, "study SNPs written: ", c.written);
    say(out_, "study individuals: ", static_cast<long long>(selected_.size()));

    out_ << "\nreading genetic map " << *o_.map << " ... " << std::flush;
    std::vector<map_row> const rows = read_map_rows(*o_.map, region_.chrom, region_.lo, region_.hi);
    out_ << "done\n";
    say(out_, "map rows written: ", static_cast<long long>(rows.size()));
    map_->write(map_file_text(rows));

    finish_outputs();
    out_ << "\nwrote " << prefix << ".legend, " << prefix << ".hap, " << gen_name_ << ", " << prefix << ".sample, "
         << prefix << ".strand, " << prefix << ".map\n";
    out_ << "Ketra flags: -h " << prefix << ".hap -l " << prefix << ".legend -m " << prefix << ".map -g " << gen_name_
         << " -strand " << prefix << ".strand -sample " << prefix << ".sample\n";
    return 0;
}

}  // namespace

int run_prep(prep_options const& options, std::ostream& out) {
    try {
        return preparation(options, out).run();
    } catch (prep_error const& e) {
        out << "ketra-prep: " << e.message << '\n';
    } catch (write_error const& e) {
        out << "ketra-prep: " << e.what() << '\n';
    }
    out.flush();
    return 1;
}
