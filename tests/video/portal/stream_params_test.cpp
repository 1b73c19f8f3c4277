#include "video/portal/stream_params.h"

#include <gtest/gtest.h>
#include <spa/buffer/buffer.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/pod/filter.h>

#include <limits>
#include <vector>

namespace ox::portal {
namespace {

const spa_pod* source_format(ParamMemory& memory, uint32_t format, spa_rectangle size,
                             spa_fraction rate) {
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), static_cast<uint32_t>(memory.size()));
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                        SPA_FORMAT_VIDEO_format, SPA_POD_Id(format), SPA_FORMAT_VIDEO_size,
                        SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate,
                        SPA_POD_Fraction(&rate), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

TEST(StreamParams, TheOfferMeetsWhatDesktopsHaveAndTheAgreedSizeIsRead) {
    const struct {
        uint32_t format;
        spa_rectangle size;
        spa_fraction rate;
        bool agrees;
    } cases[] = {
        {SPA_VIDEO_FORMAT_BGRx, {1920, 1080}, {0, 1}, true},
        {SPA_VIDEO_FORMAT_BGRx, {1, 1}, {30, 1}, true},
        {SPA_VIDEO_FORMAT_BGRx, {16384, 16384}, {60000, 1001}, true},
        {SPA_VIDEO_FORMAT_BGRx, {5120, 1440}, {240, 1}, true},
        {SPA_VIDEO_FORMAT_BGRx, {16385, 16385}, {0, 1}, false},
        {SPA_VIDEO_FORMAT_RGBx, {1920, 1080}, {0, 1}, false},
    };
    for (const auto& [format, size, rate, agrees] : cases) {
        ParamMemory ours;
        ParamMemory theirs;
        ParamMemory both;
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, both.data(), static_cast<uint32_t>(both.size()));
        spa_pod* agreed = nullptr;
        const int result = spa_pod_filter(&builder, &agreed, offered_format(ours),
                                          source_format(theirs, format, size, rate));
        ASSERT_EQ(result >= 0, agrees) << size.width << " at " << rate.num;
        if (!agrees) continue;
        spa_pod_fixate(agreed);
        const auto read = agreed_size(*agreed);
        ASSERT_TRUE(read.has_value());
        EXPECT_EQ(read->width, size.width);
        EXPECT_EQ(read->height, size.height);
    }
    ParamMemory memory;
    EXPECT_FALSE(agreed_size(*wanted_buffers(memory)));
    EXPECT_FALSE(agreed_size(*source_format(memory, SPA_VIDEO_FORMAT_RGBx, {8, 8}, {0, 1})));
    EXPECT_FALSE(agreed_size(*source_format(memory, SPA_VIDEO_FORMAT_BGRx, {0, 8}, {0, 1})));
    EXPECT_FALSE(agreed_size(*source_format(memory, SPA_VIDEO_FORMAT_BGRx, {16385, 8}, {0, 1})));
}

TEST(StreamParams, APictureIsTakenOnlyWhereItLiesWholeInTheMemory) {
    constexpr PictureSize kSize{10, 4};  // rows of 40 bytes
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    std::vector<uint8_t> memory(200);
    const struct {
        uint32_t maxsize, offset, size;
        int32_t stride, flags;
        std::optional<size_t> taken_stride;
    } cases[] = {
        {160, 0, 160, 40, 0, 40},
        {160, 0, 1, 40, 0, 40},    // what the size says does not matter
        {160, 0, 160, 0, 0, 40},   // a stride that nobody told is that of tight rows
        {172, 0, 172, 44, 0, 44},  // the last row has no padding
        {200, 28, 172, 44, 0, 44},
        {171, 0, 172, 44, 0, {}},
        {200, 29, 172, 44, 0, {}},
        {200, 0xFFFFFFFF, 160, 40, 0, {}},
        {200, 0, 160, 39, 0, {}},  // rows that overlap
        {200, 0, 160, -40, 0, {}},
        {200, 0, 160, kMin, 0, {}},
        {200, 0, 160, 0x7FFFFFFF, 0, {}},
        {160, 0, 0, 40, 0, {}},
        {160, 0, 160, 40, SPA_CHUNK_FLAG_CORRUPTED, {}},
    };
    for (const auto& [maxsize, offset, size, stride, flags, taken_stride] : cases) {
        spa_chunk chunk{.offset = offset, .size = size, .stride = stride, .flags = flags};
        spa_data block{};
        block.maxsize = maxsize;
        block.data = memory.data();
        block.chunk = &chunk;
        const auto picture = picture_in(block, kSize);
        ASSERT_EQ(picture.has_value(), taken_stride.has_value())
            << maxsize << " " << offset << " " << size << " " << stride;
        if (picture) {
            EXPECT_EQ(picture->rows, memory.data() + offset);
            EXPECT_EQ(picture->stride, taken_stride);
        }
        block.data = nullptr;
        EXPECT_FALSE(picture_in(block, kSize));
        EXPECT_FALSE(picture_in(block, {}));
    }
}

}  // namespace
}  // namespace ox::portal
