#include "video/portal/stream_params.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/pod/parser.h>

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
    // A source whose pictures come on change alone offers 0/1 and nothing else.
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

}  // namespace

// What offers several layouts is asked for them one by one: those with red first cost a swap.
void offer_formats(OfferedFormats& formats) {
    constexpr std::array<uint32_t, 4> kLayouts{SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                                               SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA};
    for (size_t i = 0; i < kLayouts.size(); ++i)
        formats.params.at(i) = offered_format(formats.memory.at(i), kLayouts.at(i));
}

const spa_pod* wanted_buffers(ParamMemory& memory) {
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

const spa_pod* wanted_transform(ParamMemory& memory) {
    spa_pod_builder builder = builder_in(memory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
    spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform),
                        SPA_PARAM_META_size,
                        SPA_POD_Int(static_cast<int>(sizeof(spa_meta_videotransform))), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

std::optional<PictureFormat> agreed_format(const spa_pod& format) {
    uint32_t type = 0;
    uint32_t subtype = 0;
    uint32_t layout = 0;  // as a number: it may be one that the enumeration does not hold
    spa_rectangle size{};
    spa_pod_parser parser{};
    spa_pod_frame object{};
    spa_pod_parser_pod(&parser, &format);
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
    PictureFormat agreed{.size = {size.width, size.height}};
    switch (layout) {
        case SPA_VIDEO_FORMAT_BGRx:
            agreed.name = "BGRx";
            return agreed;
        case SPA_VIDEO_FORMAT_BGRA:
            agreed.name = "BGRA";
            return agreed;
        case SPA_VIDEO_FORMAT_RGBx:
            agreed.name = "RGBx";
            break;
        case SPA_VIDEO_FORMAT_RGBA:
            agreed.name = "RGBA";
            break;
        default:
            return std::nullopt;
    }
    agreed.red_first = true;
    return agreed;
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

}  // namespace ox::portal
