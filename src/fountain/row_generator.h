#pragma once

#include <array>
#include <cstdint>

#include "fountain/code_params.h"

namespace ox::fountain {

/// Walks over the columns 0 .. count-1 in steps of `step` modulo the prime at or above `count`, so
/// that the first `count` columns visited are all different.
class ColumnWalk {
  public:
    ColumnWalk(uint16_t first, uint16_t step, uint16_t count, uint16_t prime) noexcept
        : column_(first), step_(step), count_(count), prime_(prime) {}

    [[nodiscard]] uint16_t column() const noexcept { return static_cast<uint16_t>(column_); }

    void advance() noexcept {
        column_ += step_;
        if (column_ >= prime_) column_ -= prime_;
        if (column_ < count_) return;
        // In the gap between count and prime: take all the steps that lead out of it at once.
        const uint32_t gap = prime_ - column_;
        column_ = step_ >= gap ? step_ - gap : ((step_ << 16U) - gap) % step_;
    }

  private:
    uint32_t column_;
    uint32_t step_;
    uint32_t count_;
    uint32_t prime_;
};

/// The binary row that a block id stands for: block `id` is the sum of the intermediate blocks in
/// `weight` peel columns and in three mix columns.
class CodeRow {
  public:
    CodeRow(const CodeParams& params, uint32_t id) noexcept;

    [[nodiscard]] uint16_t weight() const noexcept { return weight_; }

    /// Calls `visit(uint16_t column)` for each peel column.
    template <typename Visit>
    void for_each_peel_column(Visit&& visit) const {
        ColumnWalk walk = peel_;
        for (uint16_t left = weight_;;) {
            visit(walk.column());
            if (--left == 0) return;
            walk.advance();
        }
    }

    /// The mix columns, counted from the first mix column.
    [[nodiscard]] std::array<uint16_t, kMixPerRow> mix_columns() const noexcept {
        std::array<uint16_t, kMixPerRow> columns{};
        ColumnWalk walk = mix_;
        for (uint16_t& column : columns) {
            column = walk.column();
            walk.advance();
        }
        return columns;
    }

  private:
    uint16_t weight_ = 0;
    ColumnWalk peel_{0, 1, 1, 2};
    ColumnWalk mix_{0, 1, 1, 2};
};

}  // namespace ox::fountain
