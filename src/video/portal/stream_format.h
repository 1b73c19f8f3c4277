#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

struct spa_buffer;
struct spa_data;
struct spa_pod;

// The format of PipeWire's pictures, and pictures in it. Nothing here touches a stream.
namespace ox::portal {

/// Memory for a parameter object.
using ParamMemory = std::array<uint8_t, 1024>;

/// Best first: raw video of B, G, R or R, G, B and a fourth byte, up to 16384 pixels a side, at any
/// frame rate including 0 (pictures on change).
struct OfferedFormats {
    std::array<ParamMemory, 4> memory{};
    std::array<const spa_pod*, 4> params{};
};
void offer_formats(OfferedFormats& formats);

/// The supported buffers: one block of memory that this process can read.
const spa_pod* buffer_params(ParamMemory& memory);

const spa_pod* transform_params(ParamMemory& memory);

struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;
};

struct PictureFormat {
    PictureSize size;
    bool red_first = false;  ///< R, G, B and a fourth byte, not B, G, R
    const char* name = "";   ///< as PipeWire writes it: "BGRx"
};

/// The negotiated format; nothing when it was not offered.
std::optional<PictureFormat> parse_format(const spa_pod& param);

struct MappedPicture {
    const uint8_t* rows = nullptr;
    size_t stride = 0;  ///< bytes from row to row
};

/// The picture of `size` in one block of a buffer; nothing when the block has none (not mapped,
/// empty, marked as corrupted) or is too small. The other process's numbers are not trusted.
std::optional<MappedPicture> picture_in(const spa_data& block, PictureSize size);

/// Transformation of a buffer's picture (spa_meta_videotransform_value); 0 where not given.
uint32_t transform_of(const spa_buffer& buffer);

/// With this transformation undone; an unknown one counts as none.
PictureSize upright_size(PictureSize size, uint32_t transform);

/// Writes `upright_size` pixels of B, G, R and a fourth byte, upright, without padding.
void copy_upright(const MappedPicture& picture, const PictureFormat& format, uint32_t transform,
                  uint8_t* to);

}  // namespace ox::portal
