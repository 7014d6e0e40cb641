// The record of one SNP position.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// Probability triples of the individuals a run holds, one row per SNP with
// nothing allocated per individual, in an exact compact coding: a row's
// distinct triples once, and for each individual the index of its triple (half
// a byte, a byte or two, as the row's distinct triples need), whenever that is
// smaller than the plain triples, which are kept otherwise. Every value reads
// back as the very double stored.
class probability_triples {
public:
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    // Individual i's P(AA), P(AB), P(BB).
    double const* operator[](std::size_t i) const { return values_.data() + 3 * (bits_ == 0 ? i : code(i)); }
    // count triples from a flat array, replacing what was held.
    void assign(double const* triples, std::size_t count);
    // P(AA), P(AB), P(BB) becomes P(BB), P(AB), P(AA), for the first count individuals.
    void reverse_first(std::size_t count);
    // Keeps the individuals for which keep(i) is true, in order.
    template <class Keep>
    void keep_if(Keep keep) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < count_; ++i) {
            if (!keep(i)) continue;
            if (bits_ == 0)
                std::copy_n(values_.begin() + 3 * i, 3, values_.begin() + 3 * kept);
            else
                set_code(kept, code(i));
            ++kept;
        }
        count_ = kept;
        if (bits_ == 0) values_.resize(3 * kept);
        else codes_.resize((kept * bits_ + 7) / 8);
    }
    // Bytes held (the coding's size).
    std::size_t bytes() const { return values_.size() * sizeof(double) + codes_.size(); }

private:
    std::size_t code(std::size_t i) const {
        if (bits_ == 4) return codes_[i >> 1] >> (4 * (i & 1)) & 15u;
        if (bits_ == 8) return codes_[i];
        return codes_[2 * i] | std::size_t(codes_[2 * i + 1]) << 8;
    }
    void set_code(std::size_t i, std::size_t c) {
        if (bits_ == 4) {
            unsigned const shift = 4 * (i & 1);
            codes_[i >> 1] = static_cast<std::uint8_t>((codes_[i >> 1] & ~(15u << shift)) | (c & 15u) << shift);
        } else if (bits_ == 8) {
            codes_[i] = static_cast<std::uint8_t>(c);
        } else {
            codes_[2 * i] = static_cast<std::uint8_t>(c & 0xff);
            codes_[2 * i + 1] = static_cast<std::uint8_t>(c >> 8);
        }
    }

    std::size_t count_ = 0;
    unsigned bits_ = 0;                // bits per index: 4, 8 or 16; 0 = plain triples in values_
    std::vector<double> values_;       // the distinct triples, or every individual's
    std::vector<std::uint8_t> codes_;  // per individual, the index of its triple in values_
};

// Genotype calls (0, 1, 2 copies of allele B; 3 = not called) of the held
// individuals, four to a byte.
class genotype_calls {
public:
    genotype_calls() = default;
    genotype_calls(std::initializer_list<std::uint8_t> calls) { assign(calls.begin(), calls.end()); }
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    std::uint8_t operator[](std::size_t i) const { return (bytes_[i >> 2] >> (2 * (i & 3))) & 3; }
    void set(std::size_t i, std::uint8_t call) {
        unsigned const shift = 2 * (i & 3);
        bytes_[i >> 2] = static_cast<std::uint8_t>((bytes_[i >> 2] & ~(3u << shift)) | (call & 3u) << shift);
    }
    void assign(std::uint8_t const* first, std::uint8_t const* last) {
        count_ = static_cast<std::size_t>(last - first);
        bytes_.assign((count_ + 3) / 4, 0);
        for (std::size_t i = 0; i < count_; ++i) set(i, first[i]);
    }
    void assign(std::size_t count, std::uint8_t call) {
        count_ = count;
        bytes_.assign((count + 3) / 4, 0);
        for (std::size_t i = 0; i < count; ++i) set(i, call);
    }
    // Keeps the individuals for which keep(i) is true, in order.
    template <class Keep>
    void keep_if(Keep keep) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < count_; ++i)
            if (keep(i)) set(kept++, (*this)[i]);
        count_ = kept;
        bytes_.resize((kept + 3) / 4);
    }
    void release() {
        count_ = 0;
        std::vector<std::uint8_t>().swap(bytes_);
    }
    bool operator==(genotype_calls const& other) const {
        if (count_ != other.count_) return false;
        for (std::size_t i = 0; i < count_; ++i)
            if ((*this)[i] != other[i]) return false;
        return true;
    }

private:
    std::size_t count_ = 0;
    std::vector<std::uint8_t> bytes_;
};

class snp {
public:
    snp() = default;
    snp(snp const&) = default;
    snp& operator=(snp const&) = default;

    std::string rs_id;                      // legend column 1
    std::string snp_id;                     // genotype file column 1; "---" until then
    double genetic_position = 0.0;          // scaled (4 Ne M), interpolated from the map
    std::vector<int> haplotype_alleles;     // one 0/1 code per reference haplotype
    std::string legend_allele_0;
    std::string legend_allele_1;
    double hap_frequency = 0.0;             // frequency of allele 1 in the panel
    std::string note;
    // Per held individual (see data::first_held): 0, 1, 2 copies of allele B; 3 = not called.
    genotype_calls genotypes;
    probability_triples genotype_probs;     // per held individual: P(AA), P(AB), P(BB)
    std::string genotype_allele_a;
    std::string genotype_allele_b;
    double genotype_frequency = 0.0;        // frequency of allele B among called genotypes
    std::string strand;                     // "*", as read from the strand file, or "f"
    int data_type = 0;                      // 1 = panel only, 2 = panel and genotypes
    double rate_per_base = 0.0;             // scaled genetic distance per base pair from the previous SNP
    std::vector<double> switch_rates;       // [stay, jump] from the previous SNP; empty at the first
    std::vector<double> pair_work;          // engine scratch
    double work_a = 0.0, work_b = 0.0;      // engine scratch
    // Triangular pair arrays, flat: row i (i + 1 values) starts at i(i+1)/2.
    std::vector<double> backward_probs;
    std::vector<double> forward_probs;
};
