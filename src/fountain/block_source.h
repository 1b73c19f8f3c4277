#pragma once

#include <cstddef>
#include <cstdint>

namespace ox::fountain {

/// Where the blocks of a row table's rows lie: the first `side_by_side` ones at a fixed distance,
/// the others wherever `others` points.
struct BlockSource {
    const uint8_t* base = nullptr;
    size_t pitch = 0;
    uint32_t side_by_side = 0;
    const uint8_t* const* others = nullptr;

    [[nodiscard]] const uint8_t* at(uint32_t row) const noexcept {
        return row < side_by_side ? base + row * pitch : others[row - side_by_side];
    }
};

}  // namespace ox::fountain
