#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "fountain/row_generator.h"

namespace ox::fountain {

/// The rows of the blocks at hand, spelled out column by column. A row is named by its place in the
/// table.
class RowTable {
  public:
    /// Empties the table, with room for `rows` rows.
    void reset(size_t rows) {
        ids_.clear();
        columns_.clear();
        starts_.assign(1, 0);
        ids_.reserve(rows);
        starts_.reserve(rows + 1);
        columns_.reserve(rows * (kMixPerRow + kTypicalWeight));
    }

    void append(const CodeParams& params, uint32_t id) {
        const CodeRow row(params, id);
        row.for_each_peel_column([this](uint16_t column) { columns_.push_back(column); });
        for (const uint16_t column : row.mix_columns())
            columns_.push_back(column);
        ids_.push_back(id);
        starts_.push_back(static_cast<uint32_t>(columns_.size()));
    }

    void drop_last() {
        ids_.pop_back();
        starts_.pop_back();
        columns_.resize(starts_.back());
    }

    [[nodiscard]] uint32_t size() const noexcept { return static_cast<uint32_t>(ids_.size()); }
    [[nodiscard]] uint32_t id(uint32_t row) const noexcept { return ids_[row]; }

    [[nodiscard]] std::span<const uint16_t> peel_columns(uint32_t row) const noexcept {
        return {columns_.data() + starts_[row], starts_[row + 1] - starts_[row] - kMixPerRow};
    }

    /// Counted from the first mix column.
    [[nodiscard]] std::span<const uint16_t, kMixPerRow> mix_columns(uint32_t row) const noexcept {
        return std::span<const uint16_t, kMixPerRow>(
            columns_.data() + starts_[row + 1] - kMixPerRow, kMixPerRow);
    }

  private:
    static constexpr size_t kTypicalWeight = 6;

    std::vector<uint32_t> ids_;
    std::vector<uint32_t> starts_{0};
    std::vector<uint16_t> columns_;
};

}  // namespace ox::fountain
