#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ox::fountain {

/// A binary matrix that is kept in echelon form while rows are inserted one by one.
///
/// Right of its pivot column a row holds the reduced row; left of it a bit for every pivot row that
/// was added to it, so that the same additions can be repeated on the blocks.
class BinaryEchelon {
  public:
    static constexpr uint32_t kNone = UINT32_MAX;

    void reset(uint32_t columns, size_t expected_rows);

    [[nodiscard]] uint32_t columns() const noexcept {
        return static_cast<uint32_t>(pivot_rows_.size());
    }
    /// A multiple of four, so that rows are processed four words at a time.
    [[nodiscard]] size_t words_per_row() const noexcept { return words_; }

    /// Adds a row given as at most words_per_row() words, least significant bit first. Returns the
    /// row's pivot column, or kNone for a row that depends on the earlier ones and is not stored.
    /// `tag` identifies the row to the caller.
    uint32_t insert(std::span<const uint64_t> row, uint32_t tag);

    /// The row that has its pivot in `column`, or kNone.
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
