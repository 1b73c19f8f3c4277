#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace ox::bench {

/// A row of black and white blocks that carries a time through capture, encoder and decoder: 48
/// bits of a microsecond clock and a 16-bit checksum, least significant bit first, in the top left
/// corner of the picture. One block is one macroblock, so that the codec keeps it apart from its
/// neighbours.
inline constexpr uint32_t kStripBlock = 16;
inline constexpr uint32_t kStripBits = 64;
inline constexpr uint32_t kStripWidth = kStripBits * kStripBlock;

/// Depth-1 bitmap of the strip, kStripBlock rows, X11's XYBitmap layout with least significant bit
/// first and rows padded to whole bytes.
using StripBitmap = std::array<uint8_t, kStripBlock * kStripWidth / 8>;

[[nodiscard]] StripBitmap draw_strip(uint64_t time_us);

/// The time in a decoded picture's luma plane, or nothing when the checksum does not fit.
[[nodiscard]] std::optional<uint64_t> read_strip(const uint8_t* luma, ptrdiff_t stride,
                                                 uint32_t width, uint32_t height);

}  // namespace ox::bench
