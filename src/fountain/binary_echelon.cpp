#include "fountain/binary_echelon.h"

#include <algorithm>
#include <bit>

namespace ox::fountain {
namespace {

constexpr uint64_t bits_above(unsigned bit) noexcept {
    return ~uint64_t{1} << bit;
}

}  // namespace

void BinaryEchelon::reset(uint32_t columns, size_t expected_rows) {
    words_ = (size_t{columns} + 255U) / 256U * 4U;
    bits_.clear();
    bits_.reserve(expected_rows * words_);
    tags_.clear();
    tags_.reserve(expected_rows);
    pivot_rows_.assign(columns, kNone);
}

uint32_t BinaryEchelon::insert(std::span<const uint64_t> row, uint32_t tag) {
    const size_t start = bits_.size();
    bits_.resize(start + words_, 0);
    std::copy(row.begin(), row.end(), bits_.begin() + static_cast<ptrdiff_t>(start));
    uint64_t* const target = bits_.data() + start;
    for (size_t word = 0; word < words_; ++word) {
        uint64_t pending = target[word];
        while (pending != 0) {
            const auto bit = static_cast<unsigned>(std::countr_zero(pending));
            const auto column = static_cast<uint32_t>(word * 64 + bit);
            const uint32_t pivot = pivot_rows_[column];
            if (pivot == kNone) {
                pivot_rows_[column] = static_cast<uint32_t>(tags_.size());
                tags_.push_back(tag);
                return column;
            }
            const uint64_t* const source = bits_.data() + pivot * words_;
            target[word] ^= source[word] & bits_above(bit);
            for (size_t i = word + 1; i < words_; ++i)
                target[i] ^= source[i];
            pending = target[word] & bits_above(bit);
        }
    }
    bits_.resize(start);
    return kNone;
}

uint32_t BinaryEchelon::bits(uint32_t row, uint32_t column, uint32_t count) const noexcept {
    const uint64_t* const words = bits_.data() + row * words_;
    const uint32_t word = column / 64;
    const uint32_t shift = column % 64;
    uint64_t value = words[word] >> shift;
    if (shift + count > 64) value |= words[word + 1] << (64 - shift);
    return static_cast<uint32_t>(value & ((uint64_t{1} << count) - 1));
}

}  // namespace ox::fountain
