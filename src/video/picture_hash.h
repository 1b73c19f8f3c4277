#pragma once

#include <cstddef>
#include <cstdint>

namespace ox {

/// A number that differs, all but surely, when the pixels do: for telling whether a picture
/// changed, at the speed of memory. `rows` holds `height` rows of `row_bytes`, `stride` bytes
/// apart.
[[nodiscard]] uint64_t hash_picture(const uint8_t* rows, size_t stride, size_t row_bytes,
                                    uint32_t height);

}  // namespace ox
