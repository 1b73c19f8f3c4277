#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "fountain/code_params.h"
#include "fountain/pcg_random.h"

namespace ox::fountain {

/// Walks over the dense rows' peel part. Half of its columns are set, in a pattern that is cheap to
/// evaluate: the columns are taken in groups of as many as there are dense rows; within a group the
/// first row (in a random order of the rows) has a random half of the columns, and each next row
/// differs from the one before in two columns.
///
/// For each group a running sum starts at zero; `flip(column)` adds a column to it (or takes it
/// back), `emit(row)` adds the sum to dense row `row`, `restart()` clears it.
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

}  // namespace ox::fountain
