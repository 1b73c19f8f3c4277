#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

#include "fountain/code_params.h"

namespace ox::fountain {

/// The PCG XSH-RR 64/32 generator. Encoder and decoder draw the same matrix from the same seeds.
class PcgRandom {
  public:
    explicit PcgRandom(uint64_t sequence, uint64_t seed = 0) noexcept
        : increment_((sequence << 1U) | 1U) {
        next();
        state_ += seed;
        next();
    }

    uint32_t next() noexcept {
        const uint64_t old = state_;
        state_ = old * 6364136223846793005ULL + increment_;
        const auto shifted = static_cast<uint32_t>(((old >> 18U) ^ old) >> 27U);
        return std::rotr(shifted, static_cast<int>(old >> 59U));
    }

  private:
    uint64_t state_ = 0;
    uint64_t increment_;
};

/// An inside-out shuffle of 0 .. size-1; a draw serves four positions of a small deck, else two.
inline void shuffle_deck(PcgRandom& random, std::span<uint16_t> deck) noexcept {
    const auto size = static_cast<uint32_t>(deck.size());
    const uint32_t bits = size <= 256 ? 8 : 16;
    const uint32_t mask = (1U << bits) - 1;
    uint32_t draw = 0;
    uint32_t left = 0;
    for (uint32_t i = 0; i < size; ++i) {
        if (left == 0) {
            draw = random.next();
            left = 32 / bits;
        }
        const uint32_t j = (draw & mask) % (i + 1);
        draw >>= bits;
        --left;
        deck[i] = deck[j];
        deck[j] = static_cast<uint16_t>(i);
    }
}

/// Steps modulo the prime at or above `count`: the first `count` columns are all different.
class ColumnWalk {
  public:
    ColumnWalk(uint16_t first, uint16_t step, uint16_t count, uint16_t prime) noexcept
        : column_(first), step_(step), count_(count), prime_(prime) {}

    [[nodiscard]] uint16_t column() const noexcept { return static_cast<uint16_t>(column_); }

    void advance() noexcept {
        column_ += step_;
        if (column_ >= prime_) column_ -= prime_;
        if (column_ < count_) return;
        const uint32_t gap = prime_ - column_;
        column_ = step_ >= gap ? step_ - gap : ((step_ << 16U) - gap) % step_;
    }

  private:
    uint32_t column_;
    uint32_t step_;
    uint32_t count_;
    uint32_t prime_;
};

/// Block `id` is the sum of `weight` peel columns and three mix columns.
class CodeRow {
  public:
    CodeRow(const CodeParams& params, uint32_t id) noexcept;

    [[nodiscard]] uint16_t weight() const noexcept { return weight_; }

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

/// Visits the peel part of the dense rows, half of whose columns are set. Columns come in groups of
/// as many as there are dense rows; in a group the first row (in random order) has a random half,
/// each next one differs in two columns. `restart()` clears a running sum, `flip(column)` adds or
/// takes back a column, `emit(row)` adds the sum to dense row `row`.
template <typename Restart, typename Flip, typename Emit>
void walk_dense_rows(const CodeParams& params, Restart&& restart, Flip&& flip, Emit&& emit) {
    const uint32_t count = params.dense_count;
    const uint32_t half = count / 2;
    PcgRandom random(params.dense_seed);
    std::vector<uint16_t> rows(count);
    std::vector<uint16_t> bits(count);
    for (uint32_t base = 0; base < params.block_count; base += count) {
        const uint32_t size = std::min<uint32_t>(count, params.block_count - base);
        const auto flip_bit = [&](uint16_t bit) {
            if (bit < size) flip(static_cast<uint16_t>(base + bit));
        };
        restart();
        shuffle_deck(random, rows);
        shuffle_deck(random, bits);
        for (uint32_t i = 0; i < half; ++i)
            flip_bit(bits[i]);
        uint32_t next_row = 0;
        emit(rows[next_row++]);
        for (uint32_t i = 0; i < half; ++i) {
            flip_bit(bits[i]);
            flip_bit(bits[half + i]);
            emit(rows[next_row++]);
        }
        shuffle_deck(random, bits);
        for (uint32_t i = 0; i + 1 < half; ++i) {
            flip_bit(bits[i]);
            flip_bit(bits[half + i]);
            emit(rows[next_row++]);
        }
    }
}

/// The rows of a set of blocks as lists of columns. A row is identified by its index in the table.
class RowTable {
  public:
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
