#include "input/feedback.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ox {
namespace {

InputPacket packet_with(const std::array<uint8_t, 16>& payload) {
    std::array<uint8_t, 28> bytes{};
    std::copy(payload.begin(), payload.end(), bytes.begin() + 12);
    InputPacket packet;
    std::memcpy(&packet, bytes.data(), bytes.size());
    return packet;
}

// Which requests are refused is a check of the self-test.
TEST(Feedback, RfiRequestFieldsLieWhereTheWireSays) {
    const RfiRequest r =
        parse_rfi_request(packet_with({0x04, 0x03, 0x02, 0x01, 0x05, 0x03, 0x02, 0x01, 0x09, 0x03,
                                       0x02, 0x01, 0x01, 0x02, 0, 0}));
    EXPECT_EQ(r.last_delivered, 0x01020304U);
    EXPECT_EQ(r.first_missing, 0x01020305U);
    EXPECT_EQ(r.last_missing, 0x01020309U);
    EXPECT_TRUE(r.epoch);
    EXPECT_EQ(r.attempt, 2);
    EXPECT_FALSE(r.all_zero);
    EXPECT_EQ(rfi_rejection(r), "");
    EXPECT_TRUE(parse_rfi_request(packet_with({})).all_zero);
    EXPECT_FALSE(
        parse_rfi_request(packet_with({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})).all_zero);
}

TEST(Feedback, MediaFeedbackUnits) {
    const MediaFeedback f =
        parse_media_feedback(packet_with({0x39, 0x30, 0x2A, 0x01, 0x55, 0x02, 0x01, 0xFF}));
    EXPECT_FLOAT_EQ(f.loss_pct, 123.45F);
    EXPECT_FLOAT_EQ(f.rtt_ms, 298.0F);
    EXPECT_FLOAT_EQ(f.decoded_fps, 59.7F);
    EXPECT_TRUE(f.keyframe_wanted);
    EXPECT_FALSE(parse_media_feedback(packet_with({0, 0, 0, 0, 0, 0, 0xFE})).keyframe_wanted);
}

}  // namespace
}  // namespace ox
