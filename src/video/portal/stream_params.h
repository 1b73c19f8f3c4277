#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

struct spa_buffer;
struct spa_data;
struct spa_pod;

// What is told to and read from PipeWire about the screen's pictures, as its parameter objects.
// Nothing here touches a stream.
namespace ox::portal {

/// Memory for the parameter objects below, which point into it.
using ParamMemory = std::array<uint8_t, 1024>;

/// The formats that a stream can take, best first: raw video in B, G, R and a fourth byte, or else
/// in R, G, B and a fourth byte, up to 16384 pixels a side, at any frame rate including 0, which
/// stands for pictures that come when something changes.
struct OfferedFormats {
    std::array<ParamMemory, 4> memory{};
    std::array<const spa_pod*, 4> params{};
};
void offer_formats(OfferedFormats& formats);

/// The buffers that a stream can take: one block of memory that this process can read.
const spa_pod* wanted_buffers(ParamMemory& memory);

/// Asks to be told with every buffer how its picture is turned.
const spa_pod* wanted_transform(ParamMemory& memory);

struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;
};

/// What was agreed on.
struct PictureFormat {
    PictureSize size;
    bool red_first = false;  ///< R, G, B and a fourth byte, not B, G, R
    const char* name = "";   ///< as PipeWire writes it: "BGRx"
};

/// The agreed format; nothing when it is no raw video of the offered kind.
std::optional<PictureFormat> agreed_format(const spa_pod& format);

/// A picture in a buffer's memory.
struct MappedPicture {
    const uint8_t* rows = nullptr;
    size_t stride = 0;  ///< bytes from row to row
};

/// Finds a picture of `size` in one block of a buffer. Nothing when the block brings no picture (no
/// mapped memory, nothing in it, marked as damaged) or would not hold it whole; what the other
/// process says of its memory is not trusted.
std::optional<MappedPicture> picture_in(const spa_data& block, PictureSize size);

/// How the picture in a buffer is turned (spa_meta_videotransform_value); 0 where nobody says.
uint32_t transform_of(const spa_buffer& buffer);

}  // namespace ox::portal
