#include "video/portal/stream_format.h"

#include <gtest/gtest.h>
#include <spa/buffer/buffer.h>
#include <spa/param/buffers.h>
#include <spa/pod/iter.h>

#include <limits>
#include <vector>

namespace ox::portal {
namespace {

TEST(StreamFormat, APictureIsTakenOnlyWhereItLiesWholeInTheMemory) {
    constexpr PictureSize kSize{10, 4};  // rows of 40 bytes
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    std::vector<uint8_t> memory(200);
    const struct {
        uint32_t maxsize, offset, size;
        int32_t stride, flags;
        std::optional<size_t> taken_stride;
    } cases[] = {
        {160, 0, 160, 40, 0, 40},
        {160, 0, 160, 0, 0, 40},   // no stride: rows without padding
        {172, 0, 172, 44, 0, 44},  // the last row has no padding
        {200, 28, 172, 44, 0, 44},
        {171, 0, 172, 44, 0, {}},
        {200, 0, 160, 39, 0, {}},  // rows that overlap
        {200, 0, 160, kMin, 0, {}},
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
        EXPECT_EQ(picture ? std::optional(picture->stride) : std::nullopt, taken_stride)
            << maxsize << " " << offset << " " << size << " " << stride;
        EXPECT_EQ(picture ? picture->rows : nullptr,
                  taken_stride ? memory.data() + offset : nullptr);
        block.data = nullptr;
        EXPECT_FALSE(picture_in(block, kSize));
        EXPECT_FALSE(picture_in(block, {}));
    }
}

// A compositor with pictures in graphics memory copies them for clients that request other memory.
TEST(StreamFormat, GraphicsMemoryWhichCannotBeMappedIsNotRequested) {
    ParamMemory memory;
    const spa_pod_prop* types =
        spa_pod_find_prop(buffer_params(memory), nullptr, SPA_PARAM_BUFFERS_dataType);
    ASSERT_NE(types, nullptr);
    const auto* flags = static_cast<const int*>(SPA_POD_CHOICE_VALUES(&types->value));
    EXPECT_EQ(*flags & 1 << SPA_DATA_DmaBuf, 0);
}

}  // namespace
}  // namespace ox::portal
