#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ox::fountain {

/// A binary matrix in echelon form, row by row. Right of its pivot a row is reduced; left of it a
/// bit stands for each pivot row added to it, to repeat the additions on the blocks.
class BinaryEchelon {
  public:
    static constexpr uint32_t kNone = UINT32_MAX;

    void reset(uint32_t columns, size_t expected_rows);

    [[nodiscard]] uint32_t columns() const noexcept {
        return static_cast<uint32_t>(pivot_rows_.size());
    }
    /// A multiple of four, so that rows are processed four words at a time.
    [[nodiscard]] size_t words_per_row() const noexcept { return words_; }

    /// At most words_per_row() words, least significant bit first. Returns the pivot column, or
    /// kNone for a dependent row, which is not stored. `tag` is the caller's.
    uint32_t insert(std::span<const uint64_t> row, uint32_t tag);

    [[nodiscard]] uint32_t pivot_row(uint32_t column) const noexcept { return pivot_rows_[column]; }
    [[nodiscard]] uint32_t tag(uint32_t row) const noexcept { return tags_[row]; }
    [[nodiscard]] bool bit(uint32_t row, uint32_t column) const noexcept {
        return (bits_[row * words_ + column / 64] >> (column % 64) & 1U) != 0;
    }
    /// `count` bits (1 .. 16) of a row from `column` on, the first one least significant.
    [[nodiscard]] uint32_t bits(uint32_t row, uint32_t column, uint32_t count) const noexcept;

  private:
    size_t words_ = 0;
    std::vector<uint64_t> bits_;
    std::vector<uint32_t> tags_;
    std::vector<uint32_t> pivot_rows_;
};

}  // namespace ox::fountain
