#include "video/x11_image_reader.h"

#include <cstring>

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;

PixelLayout layout_of(const XImage& image) {
    return {.bits_per_pixel = image.bits_per_pixel,
            .msb_first = image.byte_order == MSBFirst,
            .red_mask = image.red_mask,
            .green_mask = image.green_mask,
            .blue_mask = image.blue_mask};
}

/// Through Xlib's own reader, for pixels that do not fill whole 16- or 32-bit words.
void unpack_slowly(const XImage& image, uint32_t y, const PixelUnpacker& unpacker, uint8_t* out) {
    auto& readable = const_cast<XImage&>(image);  // XGetPixel changes nothing
    for (int x = 0; x < image.width; ++x) {
        const uint32_t bgra = unpacker.to_bgra(XGetPixel(&readable, x, static_cast<int>(y)));
        std::memcpy(out + static_cast<size_t>(x) * kPixelBytes, &bgra, kPixelBytes);
    }
}

}  // namespace

XImageReader::XImageReader(const XImage& image)
    : unpacker_(layout_of(image)),
      direct_bgra_(layout_of(image).is_bgra()),
      is_picture_(direct_bgra_ && image.bytes_per_line == image.width * 4) {}

const uint8_t* XImageReader::row_of(const XImage& image, uint32_t y) {
    return reinterpret_cast<const uint8_t*>(image.data) +
           size_t{y} * static_cast<size_t>(image.bytes_per_line);
}

size_t XImageReader::row_bytes(const XImage& image) {
    return (static_cast<size_t>(image.width) * static_cast<size_t>(image.bits_per_pixel) + 7) / 8;
}

void XImageReader::read(const XImage& image, uint8_t* out) const {
    const auto width = static_cast<uint32_t>(image.width);
    const auto height = static_cast<uint32_t>(image.height);
    for (uint32_t y = 0; y < height; ++y, out += size_t{width} * kPixelBytes) {
        if (direct_bgra_) {
            copy_bgra_opaque(row_of(image, y), width, out);
        } else if (unpacker_.reads_rows()) {
            unpacker_.unpack_row(row_of(image, y), width, out);
        } else {
            unpack_slowly(image, y, unpacker_, out);
        }
    }
}

}  // namespace ox
