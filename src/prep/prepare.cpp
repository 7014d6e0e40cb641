#include "prep/prepare.h"

#include <stdlib.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <htslib/hts.h>
#include <htslib/kstring.h>
#include <htslib/vcf.h>

#include "io/console.h"
#include "prep/alleles.h"
#include "prep/genetic_map.h"
#include "prep/plink.h"
#include "prep/prep_error.h"
#include "prep/staged_file.h"
#include "prep/vcf_input.h"

namespace {

struct counts {
    long long read = 0, multi = 0, other = 0, duplicate = 0;
};

struct study_counts : counts {
    long long not_in_panel = 0, ambiguous_dropped = 0, written = 0;
    std::array<long long, 5> by_category{};
};

// htslib's buffers for the calls and texts of a record (it grows them with realloc()).
struct record_buffers {
    std::int32_t* calls = nullptr;
    int capacity = 0;
    kstring_t text = KS_INITIALIZE;
    ~record_buffers() {
        free(calls);
        ks_free(&text);
    }
};

class preparation {
public:
    explicit preparation(prep_options const& options) : o_(options) {}

    void run(std::ostream& out);

private:
    void choose_genotype_field();
    std::vector<std::string> select_samples();
    void read_all();
    void panel_record(bcf1_t* rec);
    void study_record(bcf1_t* rec);
    int calls_of(vcf_input const& file, bcf1_t* rec);
    void append_genotypes(bcf1_t* rec, bool reverse);
    void append_probabilities(bcf1_t* rec, int sample, bool reverse);
    void write_report(std::ostream& out, std::size_t map_rows) const;

    prep_options const& o_;
    region_bounds region_;
    std::string study_path_;  // the study VCF/BCF (for BGEN, plink2's)
    bool use_gp_ = false;

    std::unique_ptr<vcf_input> panel_, study_;
    std::unique_ptr<staged_file> legend_, hap_, gen_, strand_;

    // The panel SNP kept at the position being read, if any.
    std::int64_t position_ = -1;
    bool panel_at_position_ = false;
    std::string panel_id_;
    char panel_a0_ = 0, panel_a1_ = 0;
    bool study_at_position_ = false;

    counts panel_counts_;
    long long panel_kept_ = 0;
    long long haplotypes_ = 0;
    study_counts study_counts_;
    std::vector<int> selected_;  // the study samples written, as header indices

    record_buffers buffers_;
    std::string line_;
};

// GP unless -gt; a BGEN study without GP (plink2 writes it only when some
// probability is not a hard call) falls back to GT.
void preparation::choose_genotype_field() {
    bcf_hdr_t* header = study_->header();
    auto const declared = [&](char const* tag) {
        return bcf_hdr_idinfo_exists(header, BCF_HL_FMT, bcf_hdr_id2int(header, BCF_DT_ID, tag));
    };
    bool const has_gt = declared("GT"), has_gp = declared("GP");
    std::string const& name = o_.bgen.empty() ? o_.study : o_.bgen;
    if (!has_gt && !has_gp) throw prep_error{name + ": neither GT nor GP is declared; no genotypes to read"};
    use_gp_ = !o_.gt && has_gp;
    if (o_.gt && !has_gt) throw prep_error{name + ": no GT field; leave out -gt to read the probabilities (GP)"};
    if (!o_.gt && !has_gp && o_.bgen.empty()) throw prep_error{name + ": no GP field; use -gt for hard calls"};
}

// The study samples written: all, or those listed in -samples, in the study's order.
std::vector<std::string> preparation::select_samples() {
    bcf_hdr_t* header = study_->header();
    int const n = bcf_hdr_nsamples(header);
    std::vector<bool> listed(static_cast<std::size_t>(n), o_.samples.empty());
    if (!o_.samples.empty()) {
        int count = 0;
        char** list = hts_readlist(o_.samples.c_str(), 1, &count);
        if (!list) throw prep_error{o_.samples + ": cannot read the list of samples"};
        std::string problem;
        for (int i = 0; i < count; ++i) {
            int const id = bcf_hdr_id2int(header, BCF_DT_SAMPLE, list[i]);
            if (problem.empty() && id < 0) problem = "sample '" + std::string(list[i]) + "' is not in " + study_path_;
            if (problem.empty() && listed[static_cast<std::size_t>(id)])
                problem = "sample '" + std::string(list[i]) + "' is listed twice";
            if (id >= 0) listed[static_cast<std::size_t>(id)] = true;
            free(list[i]);
        }
        free(list);
        if (!problem.empty()) throw prep_error{o_.samples + ": " + problem};
    }
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) {
        if (!listed[static_cast<std::size_t>(i)]) continue;
        selected_.push_back(i);
        names.emplace_back(header->samples[i]);
    }
    return names;
}

// The record's calls in buffers_.calls; returns the ploidy (0 when there are none).
int preparation::calls_of(vcf_input const& file, bcf1_t* rec) {
    int const n = bcf_hdr_nsamples(file.header());
    int const total = n > 0 ? bcf_get_genotypes(file.header(), rec, &buffers_.calls, &buffers_.capacity) : 0;
    return total > 0 ? total / n : 0;
}

void preparation::panel_record(bcf1_t* rec) {
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
    int const n = bcf_hdr_nsamples(panel_->header());
    int const ploidy = calls_of(*panel_, rec);
    line_.clear();
    for (int i = 0; i < n; ++i) {
        std::int32_t const* g = buffers_.calls + static_cast<std::size_t>(i) * ploidy;
        int a0 = 0, a1 = 0;
        if (!biallelic_pair(g, ploidy, a0, a1) || (!bcf_gt_is_phased(g[1]) && a0 != a1)) {
            buffers_.text.l = 0;
            if (ploidy > 0) bcf_format_gt(bcf_get_fmt(panel_->header(), rec, "GT"), i, &buffers_.text);
            throw prep_error{panel_->at(rec) + "genotype '" + (ploidy > 0 ? buffers_.text.s : ".") + "' of sample " +
                             panel_->header()->samples[i] +
                             " is not a phased call of 0 and 1; the reference panel must be phased and complete"};
        }
        if (i > 0) line_ += ' ';
        line_ += static_cast<char>('0' + a0);
        line_ += ' ';
        line_ += static_cast<char>('0' + a1);
    }
    line_ += '\n';
    hap_->write(line_);
    if (panel_kept_ == 0) haplotypes_ = 2LL * n;
    ++panel_kept_;
    std::string const position = std::to_string(rec->pos + 1);
    panel_id_ = rec->d.id && std::strcmp(rec->d.id, ".") != 0
                    ? std::string(rec->d.id)
                    : region_.text.substr(0, region_.text.find(':')) + ":" + position;
    legend_->write(panel_id_ + " " + position + " " + rec->d.allele[0] + " " + rec->d.allele[1] + "\n");
    panel_at_position_ = true;
    panel_a0_ = rec->d.allele[0][0];
    panel_a1_ = rec->d.allele[1][0];
}

// One sample's GP as its text: written as it stands (reversed with the
// alleles), a missing value makes the call missing.
void preparation::append_probabilities(bcf1_t* rec, int sample, bool reverse) {
    std::string_view const text(buffers_.text.s, buffers_.text.l);
    std::string_view values[3];
    std::size_t count = 0, start = 0;
    bool missing = false;
    for (std::size_t comma = 0; comma != std::string_view::npos; start = comma + 1) {
        comma = text.find(',', start);
        std::string_view const value = text.substr(start, comma == std::string_view::npos ? comma : comma - start);
        missing |= value == ".";
        if (count < 3) values[count] = value;
        ++count;
    }
    if (missing) {
        line_ += triple_text[3];
        return;
    }
    if (count != 3)
        throw prep_error{study_->at(rec) + "GP '" + std::string(text) + "' of sample " +
                         study_->header()->samples[sample] + " does not hold three probabilities"};
    for (int k = 0; k < 3; ++k) {
        if (k) line_ += ' ';
        line_.append(values[reverse ? 2 - k : k]);
    }
}

// Every selected sample's triple: its GP where there is one, else its hard call.
void preparation::append_genotypes(bcf1_t* rec, bool reverse) {
    if (selected_.empty()) return;
    int const ploidy = calls_of(*study_, rec);
    bcf_fmt_t* gp = use_gp_ ? bcf_get_fmt(study_->header(), rec, "GP") : nullptr;
    for (int const i : selected_) {
        line_ += ' ';
        if (gp) {
            buffers_.text.l = 0;
            bcf_fmt_array(&buffers_.text, gp->n, gp->type, gp->p + static_cast<std::size_t>(i) * gp->size);
            if (buffers_.text.l > 0 && !(buffers_.text.l == 1 && buffers_.text.s[0] == '.')) {
                append_probabilities(rec, i, reverse);
                continue;
            }
        }
        int a0 = 0, a1 = 0;
        int const copies = ploidy > 0 && biallelic_pair(buffers_.calls + static_cast<std::size_t>(i) * ploidy,
                                                        ploidy, a0, a1)
                               ? a0 + a1
                               : 3;
        line_ += triple_text[reverse && copies < 3 ? 2 - copies : copies];
    }
}

void preparation::study_record(bcf1_t* rec) {
    std::int64_t const pos = rec->pos + 1;
    if (!o_.samples.empty()) {
        // With a sample list, a call naming an allele the record lacks stops the run.
        int const ploidy = calls_of(*study_, rec);
        for (int const i : selected_) {
            std::int32_t const* g = buffers_.calls + static_cast<std::size_t>(i) * ploidy;
            for (int k = 0; k < ploidy && g[k] != bcf_int32_vector_end; ++k)
                if (!bcf_gt_is_missing(g[k]) && bcf_gt_allele(g[k]) >= rec->n_allele)
                    throw prep_error{study_->at(rec) + "sample " + study_->header()->samples[i] + " has allele " +
                                     std::to_string(bcf_gt_allele(g[k])) + ", which the record does not have"};
        }
    }
    if (rec->errcode & (BCF_ERR_CTG_UNDEF | BCF_ERR_TAG_UNDEF))
        throw prep_error{study_->at(rec) + "the record uses a tag or contig the header does not declare; "
                                           "declare it in the header"};
    if (rec->errcode) throw prep_error{study_->at(rec) + "the record is malformed"};
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
    append_genotypes(rec, reorder);
    line_ += '\n';
    gen_->write(line_);
    if (c == complementary) strand_->write(position_text + " -\n");
    study_at_position_ = true;
    ++study_counts_.written;
}

// Both files side by side, one position at a time: the panel's records at a
// position first (the SNP kept there is what the study's records meet), then
// the study's.
void preparation::read_all() {
    bcf1_t* p = panel_->next();
    bcf1_t* s = study_->next();
    while (p || s) {
        std::int64_t const x = p && (!s || p->pos <= s->pos) ? p->pos : s->pos;
        position_ = x + 1;
        panel_at_position_ = false;
        study_at_position_ = false;
        for (; p && p->pos <= x; p = panel_->next()) panel_record(p);
        for (; s && s->pos <= x; s = study_->next()) study_record(s);
    }
}

void preparation::write_report(std::ostream& out, std::size_t map_rows) const {
    if (!o_.bgen.empty()) out << "converting " << o_.bgen << " with plink2 ... done\n";
    out << "reading reference panel " << o_.ref << " in " << region_.text << " ... done\n";
    print_count(out, "reference sites read: ", panel_counts_.read);
    print_count(out, "multi-allelic sites dropped: ", panel_counts_.multi);
    print_count(out, "non-SNP sites dropped: ", panel_counts_.other);
    if (panel_counts_.duplicate) print_count(out, "SNPs at a position already seen dropped: ", panel_counts_.duplicate);
    print_count(out, "reference SNPs kept: ", panel_kept_);
    print_count(out, "reference haplotypes: ", haplotypes_);

    auto const& c = study_counts_;
    out << "\nreading study genotypes (" << (use_gp_ ? "GP" : "GT") << ") from "
        << (o_.bgen.empty() ? o_.study : o_.bgen) << " ... done\n";
    print_count(out, "study records read: ", c.read);
    print_count(out, "multi-allelic sites dropped: ", c.multi);
    print_count(out, "non-SNP sites dropped: ", c.other);
    print_count(out, "SNPs not in the reference panel dropped: ", c.not_in_panel);
    if (c.duplicate) print_count(out, "SNPs at a position already seen dropped: ", c.duplicate);
    print_count(out, "same alleles, same order (kept): ", c.by_category[same]);
    print_count(out, "same alleles, swapped (kept, probabilities reordered): ", c.by_category[swapped]);
    print_count(out, "complementary alleles (kept, strand file entry): ", c.by_category[complementary]);
    print_count(out, "other alleles (dropped): ", c.by_category[mismatch]);
    if (o_.drop_ambiguous) {
        print_count(out, "A/T or C/G SNPs (dropped): ", c.ambiguous_dropped);
    } else {
        print_count(out, "A/T or C/G SNPs (kept as the same strand): ", c.by_category[ambiguous]);
    }
    print_count(out, "study SNPs written: ", c.written);
    print_count(out, "study individuals: ", static_cast<long long>(selected_.size()));

    out << "\nreading genetic map " << o_.map << " ... done\n";
    print_count(out, "map rows written: ", static_cast<long long>(map_rows));
    std::string const& p = o_.output;
    std::string const& gen = gen_->path();
    out << "\nwrote " << p << ".legend, " << p << ".hap, " << gen << ", " << p << ".sample, " << p << ".strand, " << p
        << ".map\n";
    out << "Ketra flags: -h " << p << ".hap -l " << p << ".legend -m " << p << ".map -g " << gen << " -strand " << p
        << ".strand -sample " << p << ".sample\n";
}

void preparation::run(std::ostream& out) {
    region_ = parse_region(o_.region);
    std::string const& prefix = o_.output;
    auto const folder = std::filesystem::path(prefix).parent_path();
    std::error_code error;
    if (!folder.empty()) std::filesystem::create_directories(folder, error);
    if (error) throw prep_error{folder.string() + ": cannot create the folder (" + error.message() + ")"};
    std::vector<map_row> const map_rows = read_map_rows(o_.map, region_.chrom, region_.lo, region_.hi);

    // plink2's output goes to a scratch folder, removed at the end.
    struct scratch {
        std::string path;
        ~scratch() {
            std::error_code ignored;
            if (!path.empty()) std::filesystem::remove_all(path, ignored);
        }
    } work;
    study_path_ = o_.study;
    if (!o_.bgen.empty()) {
        char const* dir = std::getenv("TMPDIR");
        std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/ketra-prep.XXXXXX";
        if (!::mkdtemp(&pattern[0])) throw prep_error{pattern + ": cannot create a temporary folder"};
        work.path = pattern;
        study_path_ = bgen_to_vcf(o_.bgen, o_.bgen_sample, work.path);
    }
    panel_ = std::make_unique<vcf_input>(o_.ref, region_.text);
    study_ = std::make_unique<vcf_input>(study_path_, region_.text);
    choose_genotype_field();
    std::string sample_text = "ID_1 ID_2 missing\n0 0 0\n";
    for (auto const& s : select_samples()) sample_text += s + " " + s + " 0\n";

    legend_ = std::make_unique<staged_file>(prefix + ".legend", false);
    hap_ = std::make_unique<staged_file>(prefix + ".hap", false);
    gen_ = std::make_unique<staged_file>(prefix + (o_.plain ? ".gen" : ".gen.gz"), !o_.plain);
    staged_file sample(prefix + ".sample", false);
    strand_ = std::make_unique<staged_file>(prefix + ".strand", false);
    staged_file map(prefix + ".map", false);
    legend_->write("id position a0 a1\n");
    sample.write(sample_text);
    map.write(map_file_text(map_rows));

    read_all();
    if (panel_kept_ == 0) throw prep_error{o_.ref + ": no biallelic SNP in region " + region_.text};
    for (staged_file* f : {legend_.get(), hap_.get(), gen_.get(), &sample, strand_.get(), &map}) f->commit();
    write_report(out, map_rows.size());
}

}  // namespace

void run_prep(prep_options const& options, std::ostream& out) { preparation(options).run(out); }
