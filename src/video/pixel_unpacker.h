#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ox {

/// The pixels' layout in memory, as an X visual describes it.
struct PixelLayout {
    int bits_per_pixel = 0;
    bool msb_first = false;
    uint64_t red_mask = 0;
    uint64_t green_mask = 0;
    uint64_t blue_mask = 0;

    [[nodiscard]] bool is_bgra() const;
};

/// Converts pixels to BGRA with alpha 255; values are scaled to 0..255, missing channels 0.
class PixelUnpacker {
  public:
    PixelUnpacker() : PixelUnpacker(PixelLayout{}) {}
    explicit PixelUnpacker(const PixelLayout& layout);

    /// Whether `unpack_row` supports the layout; if not, call `to_bgra` for each pixel.
    [[nodiscard]] bool reads_rows() const;

    /// Converts `width` pixels at `row` (any alignment) to width x 4 bytes at `out`.
    void unpack_row(const uint8_t* row, uint32_t width, uint8_t* out) const;

    /// One pixel as a little-endian word: blue in the lowest byte, 255 in the highest.
    [[nodiscard]] uint32_t to_bgra(uint64_t pixel) const;

  private:
    struct Channel {
        Channel(uint64_t channel_mask, int out_shift);
        [[nodiscard]] uint32_t at(uint64_t pixel) const;

        uint64_t mask;
        int shift = 0;  // of the mask's lowest bit
        int target;     // bits to the left of the channel in the output word
        uint64_t greatest = 0;
        std::vector<uint32_t> table;  // output by channel value; empty if too large
    };

    template <typename Pixel>
    void unpack_row_of(const uint8_t* row, uint32_t width, uint8_t* out) const;

    PixelLayout layout_;
    std::array<Channel, 3> channels_;
};

/// Copies `pixels` BGRA pixels and sets their fourth bytes to 255.
void copy_bgra_opaque(const uint8_t* from, size_t pixels, uint8_t* to);

}  // namespace ox
