#include "video/portal/stream_format.h"

#include <libyuv/convert_argb.h>
#include <libyuv/rotate_argb.h>
#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/pod/parser.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace ox::portal {
namespace {

constexpr size_t kPixelBytes = 4;
constexpr uint32_t kMaxSide = 16384;

spa_pod_builder builder_in(ParamMemory& memory) {
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), static_cast<uint32_t>(memory.size()));
    return builder;
}

const spa_pod* offered_format(ParamMemory& memory, uint32_t layout) {
    const spa_rectangle usual{1920, 1080};
    const spa_rectangle smallest{1, 1};
    const spa_rectangle largest{kMaxSide, kMaxSide};
    const spa_fraction usual_rate{60, 1};
    // A source that sends pictures only on change offers nothing but 0/1.
    const spa_fraction slowest{0, 1};
    const spa_fraction fastest{1000, 1};
    spa_pod_builder builder = builder_in(memory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                        SPA_FORMAT_VIDEO_format, SPA_POD_Id(layout), SPA_FORMAT_VIDEO_size,
                        SPA_POD_CHOICE_RANGE_Rectangle(&usual, &smallest, &largest),
                        SPA_FORMAT_VIDEO_framerate,
                        SPA_POD_CHOICE_RANGE_Fraction(&usual_rate, &slowest, &fastest), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

/// `turns` quarter turns to the left, after a flip around the vertical axis if `flipped`.
struct Turn {
    int turns = 0;
    bool flipped = false;
};

Turn turn_of(uint32_t transform) {
    if (transform > SPA_META_TRANSFORMATION_Flipped270) return {};
    constexpr uint32_t kQuarters = 4;
    return {.turns = static_cast<int>(transform % kQuarters),
            .flipped = transform >= SPA_META_TRANSFORMATION_Flipped};
}

void copy_rows(const MappedPicture& picture, size_t row_bytes, uint32_t rows, uint8_t* to) {
    if (picture.stride == row_bytes) {
        std::memcpy(to, picture.rows, row_bytes * rows);
        return;
    }
    for (uint32_t row = 0; row < rows; ++row)
        std::memcpy(to + row * row_bytes, picture.rows + row * picture.stride, row_bytes);
}

void mirror_rows(uint8_t* pixels, PictureSize size) {
    const size_t row_bytes = size.width * kPixelBytes;
    for (uint32_t y = 0; y < size.height; ++y) {
        uint8_t* left = pixels + y * row_bytes;
        uint8_t* right = left + row_bytes - kPixelBytes;
        for (; left < right; left += kPixelBytes, right -= kPixelBytes)
            std::swap_ranges(left, left + kPixelBytes, right);
    }
}

}  // namespace

// A source that has several layouts is to prefer those with blue first, which need no swap.
void offer_formats(OfferedFormats& formats) {
    constexpr std::array<uint32_t, 4> kLayouts{SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                                               SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA};
    for (size_t i = 0; i < kLayouts.size(); ++i)
        formats.params.at(i) = offered_format(formats.memory.at(i), kLayouts.at(i));
}

const spa_pod* buffer_params(ParamMemory& memory) {
    constexpr int kReadable = (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd);
    constexpr int kUsual = 4;
    constexpr int kFewest = 2;
    constexpr int kMost = 16;
    spa_pod_builder builder = builder_in(memory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    spa_pod_builder_add(&builder, SPA_PARAM_BUFFERS_buffers,
                        SPA_POD_CHOICE_RANGE_Int(kUsual, kFewest, kMost), SPA_PARAM_BUFFERS_blocks,
                        SPA_POD_Int(1), SPA_PARAM_BUFFERS_dataType,
                        SPA_POD_CHOICE_FLAGS_Int(kReadable), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

const spa_pod* transform_params(ParamMemory& memory) {
    spa_pod_builder builder = builder_in(memory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
    spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform),
                        SPA_PARAM_META_size,
                        SPA_POD_Int(static_cast<int>(sizeof(spa_meta_videotransform))), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

std::optional<PictureFormat> parse_format(const spa_pod& param) {
    uint32_t type = 0;
    uint32_t subtype = 0;
    uint32_t layout = 0;  // as a number: it may be one that the enumeration does not hold
    spa_rectangle size{};
    spa_pod_parser parser{};
    spa_pod_frame object{};
    spa_pod_parser_pod(&parser, &param);
    if (spa_pod_parser_push_object(&parser, &object, SPA_TYPE_OBJECT_Format, nullptr) < 0 ||
        spa_pod_parser_get(&parser, SPA_FORMAT_mediaType, SPA_POD_Id(&type),
                           SPA_FORMAT_mediaSubtype, SPA_POD_Id(&subtype), SPA_FORMAT_VIDEO_format,
                           SPA_POD_Id(&layout), SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
                           0) < 0) {
        return std::nullopt;
    }
    if (type != SPA_MEDIA_TYPE_video || subtype != SPA_MEDIA_SUBTYPE_raw || size.width == 0 ||
        size.height == 0 || size.width > kMaxSide || size.height > kMaxSide) {
        return std::nullopt;
    }
    PictureFormat format{.size = {size.width, size.height}};
    switch (layout) {
        case SPA_VIDEO_FORMAT_BGRx:
            format.name = "BGRx";
            return format;
        case SPA_VIDEO_FORMAT_BGRA:
            format.name = "BGRA";
            return format;
        case SPA_VIDEO_FORMAT_RGBx:
            format.name = "RGBx";
            break;
        case SPA_VIDEO_FORMAT_RGBA:
            format.name = "RGBA";
            break;
        default:
            return std::nullopt;
    }
    format.red_first = true;
    return format;
}

std::optional<MappedPicture> picture_in(const spa_data& block, PictureSize size) {
    const spa_chunk* chunk = block.chunk;
    if (block.data == nullptr || chunk == nullptr || size.width == 0 || size.height == 0) {
        return std::nullopt;
    }
    // Shared with the other process: read once.
    const uint32_t offset = chunk->offset;
    const uint32_t bytes = chunk->size;
    const int32_t given_stride = chunk->stride;
    if (bytes == 0 || (static_cast<uint32_t>(chunk->flags) & SPA_CHUNK_FLAG_CORRUPTED) != 0)
        return std::nullopt;
    const size_t row_bytes = size.width * kPixelBytes;
    const size_t stride = given_stride == 0 ? row_bytes : static_cast<size_t>(given_stride);
    if (given_stride < 0 || stride < row_bytes) return std::nullopt;
    const size_t end = offset + stride * (size.height - 1) + row_bytes;
    if (end > block.maxsize) return std::nullopt;
    return MappedPicture{static_cast<const uint8_t*>(block.data) + offset, stride};
}

uint32_t transform_of(const spa_buffer& buffer) {
    const auto* transform = static_cast<const spa_meta_videotransform*>(spa_buffer_find_meta_data(
        &buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)));
    return transform != nullptr ? transform->transform : 0;
}

PictureSize upright_size(PictureSize size, uint32_t transform) {
    if (turn_of(transform).turns % 2 != 0) std::swap(size.width, size.height);
    return size;
}

// libyuv names formats by their 32-bit word: its "ARGB" is B, G, R, A in memory, its "ABGR" R, G,
// B, A.
void copy_upright(const MappedPicture& picture, const PictureFormat& format, uint32_t transform,
                  uint8_t* to) {
    const Turn turn = turn_of(transform);
    const PictureSize size = upright_size(format.size, transform);
    const int to_stride = static_cast<int>(size.width * kPixelBytes);
    const int from_stride = static_cast<int>(picture.stride);
    const auto width = static_cast<int>(format.size.width);
    const auto height = static_cast<int>(format.size.height);
    if (turn.turns == 0 && format.red_first) {
        libyuv::ABGRToARGB(picture.rows, from_stride, to, to_stride, width, height);
    } else if (turn.turns == 0) {
        copy_rows(picture, format.size.width * kPixelBytes, format.size.height, to);
    } else {
        // Undone by turning to the right.
        constexpr libyuv::RotationMode kBack[] = {libyuv::kRotate0, libyuv::kRotate90,
                                                  libyuv::kRotate180, libyuv::kRotate270};
        libyuv::ARGBRotate(picture.rows, from_stride, to, to_stride, width, height,
                           kBack[turn.turns]);
        if (format.red_first) {
            libyuv::ABGRToARGB(to, to_stride, to, to_stride, static_cast<int>(size.width),
                               static_cast<int>(size.height));
        }
    }
    if (turn.flipped) mirror_rows(to, size);
}

}  // namespace ox::portal
