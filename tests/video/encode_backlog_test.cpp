#include "video/encode_backlog.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

TEST(EncodeBacklog, KeepsWhatOneCallEmitsTooMuch) {
    EncodeBacklog backlog;
    EncodedFrame out;
    EXPECT_FALSE(backlog.pop(out));

    const auto deliver = [&](uint8_t byte, bool keyframe) {
        return backlog.deliver({&byte, 1}, keyframe, 1000U + byte, out);
    };
    EXPECT_TRUE(deliver(0, true));  // the call's own output
    for (uint8_t i = 1; i <= 8; ++i)
        EXPECT_TRUE(deliver(i, i == 3));
    EXPECT_FALSE(deliver(9, false));  // a ninth does not fit
    EXPECT_EQ(out.data, std::vector<uint8_t>{0});
    EXPECT_TRUE(out.keyframe);

    for (uint8_t i = 1; i <= 8; ++i) {
        ASSERT_TRUE(backlog.pop(out));
        EXPECT_EQ(out.data, std::vector<uint8_t>{i});
        EXPECT_EQ(out.keyframe, i == 3);
        EXPECT_EQ(out.timestamp, 1000U + i);
    }
    EXPECT_FALSE(backlog.pop(out));
    EXPECT_TRUE(deliver(10, false));  // appended: `out` still holds the eighth
    backlog.clear();
    EXPECT_FALSE(backlog.pop(out));
}

}  // namespace
}  // namespace ox
