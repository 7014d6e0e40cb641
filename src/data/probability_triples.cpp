#include <cstdint>
#include <cstring>
#include <vector>

#include "data/snp.h"

namespace {

constexpr std::size_t max_distinct = 1 << 16;  // what two-byte indices reach

// Distinct triples of one row, by their bits: open addressing over a table
// that is reused from row to row (a slot counts only when its round matches,
// so nothing is cleared between rows).
class triple_index {
public:
    triple_index() : slots_(2 * max_distinct) {}

    void start_row() {
        if (++round_ == 0) {  // the round counter wrapped: clear for real
            for (slot& s : slots_) s.round = 0;
            round_ = 1;
        }
        distinct_.clear();
    }

    // Index of the triple among the row's distinct ones; -1 once there are too many.
    long find_or_add(double const* triple) {
        std::uint64_t bits[3];
        std::memcpy(bits, triple, sizeof bits);
        std::uint64_t h = bits[0] * 0x9E3779B97F4A7C15ull ^ bits[1] * 0xC2B2AE3D27D4EB4Full ^
                          bits[2] * 0x165667B19E3779F9ull;
        std::size_t const mask = slots_.size() - 1;
        for (std::size_t i = (h ^ h >> 29) & mask;; i = (i + 1) & mask) {
            slot& s = slots_[i];
            if (s.round != round_) {
                if (distinct_.size() / 3 >= max_distinct) return -1;
                s.round = round_;
                s.code = static_cast<std::uint32_t>(distinct_.size() / 3);
                distinct_.insert(distinct_.end(), triple, triple + 3);
                return s.code;
            }
            if (std::memcmp(distinct_.data() + 3 * s.code, triple, sizeof bits) == 0) return s.code;
        }
    }

    std::vector<double> const& distinct() const { return distinct_; }

private:
    struct slot {
        std::uint32_t round = 0;
        std::uint32_t code = 0;
    };
    std::vector<slot> slots_;
    std::uint32_t round_ = 0;
    std::vector<double> distinct_;
};

}  // namespace

void probability_triples::assign(double const* triples, std::size_t count) {
    thread_local triple_index index;
    thread_local std::vector<std::uint16_t> codes;
    count_ = count;
    index.start_row();
    codes.resize(count);
    bool coded = true;
    for (std::size_t i = 0; i < count && coded; ++i) {
        long const code = index.find_or_add(triples + 3 * i);
        coded = code >= 0;
        codes[i] = static_cast<std::uint16_t>(code);
    }
    std::size_t const distinct = index.distinct().size() / 3;
    bits_ = !coded ? 0 : distinct <= 16 ? 4 : distinct <= 256 ? 8 : 16;
    // Plain triples whenever the coding would not be smaller (few individuals).
    if (bits_ != 0 && (count * bits_ + 7) / 8 + 24 * distinct >= 24 * count) bits_ = 0;
    codes_.clear();
    codes_.shrink_to_fit();
    if (bits_ == 0) {
        values_.assign(triples, triples + 3 * count);
        return;
    }
    values_ = index.distinct();
    values_.shrink_to_fit();
    codes_.assign((count * bits_ + 7) / 8, 0);
    for (std::size_t i = 0; i < count; ++i) set_code(i, codes[i]);
}

void probability_triples::reverse_first(std::size_t count) {
    if (count > count_) count = count_;
    if (bits_ != 0 && count < count_) {
        // Only some individuals: back to plain triples, each reversed on its own.
        std::vector<double> plain(3 * count_);
        for (std::size_t i = 0; i < count_; ++i) std::memcpy(&plain[3 * i], (*this)[i], 3 * sizeof(double));
        values_ = std::move(plain);
        codes_.clear();
        codes_.shrink_to_fit();
        bits_ = 0;
    }
    // Coded rows reverse each distinct triple once, which reverses everybody's.
    std::size_t const triples = bits_ == 0 ? count : values_.size() / 3;
    for (std::size_t t = 0; t < triples; ++t) std::swap(values_[3 * t], values_[3 * t + 2]);
}
