#pragma once

#include <cstdint>

#include "fountain/tables.h"

namespace ox::fountain {

/// The matrix of one block count, at both ends. Its unknowns are the intermediate blocks: the peel
/// columns 0 .. block_count-1, then the mix columns: dense_count for the dense rows, then
/// kHeavyRows for the heavy ones.
/// the last kHeavyRows to the heavy rows.
struct CodeParams {
    uint16_t block_count = 0;  ///< N, 2 .. 64000
    uint16_t dense_count = 0;  ///< dense rows, 2 modulo 4
    uint16_t mix_count = 0;    ///< dense_count + kHeavyRows
    uint16_t block_prime = 0;  ///< smallest prime not below block_count
    uint16_t mix_prime = 0;    ///< smallest prime not below mix_count
    uint32_t peel_seed = 0;
    uint32_t dense_seed = 0;

    [[nodiscard]] uint32_t columns() const noexcept {
        return static_cast<uint32_t>(block_count) + mix_count;
    }
    /// The heavy rows are zero but for this many last mix columns.
    [[nodiscard]] uint16_t heavy_columns() const noexcept {
        return mix_count < kMaxHeavyColumns ? mix_count : kMaxHeavyColumns;
    }
};

/// From the tables. The peel seed is meaningless above kTabledBlocks.
CodeParams code_params(uint32_t block_count) noexcept;

/// The same with the sizes and seeds given, for the search of the tables.
CodeParams code_params_with(uint32_t block_count, uint16_t dense_count, uint32_t peel_seed,
                            uint32_t dense_seed) noexcept;

/// For kMinBlocks .. kMaxBlocks, the same at both ends. A peel seed beyond the table is searched at
/// the first use in a process, for as long as solving an encoder's matrix takes. Any thread. Throws
/// std::bad_alloc.
CodeParams choose_code(uint32_t block_count);

}  // namespace ox::fountain
