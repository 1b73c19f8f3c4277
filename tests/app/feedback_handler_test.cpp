#include "app/session/feedback_handler.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ox {
namespace {

InputPacket feedback_packet(InputKind kind, const std::array<uint8_t, 16>& payload = {}) {
    std::array<uint8_t, 28> bytes{1, static_cast<uint8_t>(kind)};
    std::copy(payload.begin(), payload.end(), bytes.begin() + 12);
    InputPacket packet;
    std::memcpy(&packet, bytes.data(), bytes.size());
    return packet;
}

class FeedbackHandlerTest : public testing::Test {
  protected:
    /// True when the packet made the session want a keyframe.
    bool asks(const InputPacket& packet, int64_t now_us) {
        signals_.keyframe_requested = false;
        handler_.handle(packet, now_us);
        return signals_.keyframe_requested;
    }

    SessionSignals signals_;
    FeedbackHandler handler_{signals_};
};

constexpr std::array<uint8_t, 16> kValidRfi{7, 0, 0, 0, 8, 0, 0, 0, 9, 0, 0, 0, 1, 0};
constexpr std::array<uint8_t, 16> kRejectedRfi{7, 0, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0, 1, 0};

TEST_F(FeedbackHandlerTest, MediaFeedbackReplacesWhatTheControlChannelSaid) {
    EXPECT_TRUE(asks(feedback_packet(InputKind::MediaFeedback, {125, 0, 31, 0, 0x58, 2, 1}), 77));
    EXPECT_FLOAT_EQ(signals_.loss_pct, 1.25F);
    EXPECT_FLOAT_EQ(signals_.rtt_ms, 31.0F);
    EXPECT_FLOAT_EQ(signals_.decoded_fps, 60.0F);
    EXPECT_EQ(signals_.last_media_feedback_us, 77);
    EXPECT_FALSE(asks(feedback_packet(InputKind::MediaFeedback), 78));
}

TEST_F(FeedbackHandlerTest, EveryFeedbackWishGoesThroughTheInFlightTest) {
    signals_.last_keyframe_sent_us = 1'000'000;
    for (const InputPacket& wish :
         {feedback_packet(InputKind::KeyframeRequest), feedback_packet(InputKind::RfiRequest),
          feedback_packet(InputKind::RfiRequest, kRejectedRfi),
          feedback_packet(InputKind::RfiRequest, kValidRfi),
          feedback_packet(InputKind::MediaFeedback, {0, 0, 0, 0, 0, 0, 1})}) {
        EXPECT_FALSE(asks(wish, 1'100'000));
    }
    EXPECT_EQ(signals_.answered_in_flight, 5U);
    EXPECT_TRUE(asks(feedback_packet(InputKind::KeyframeRequest), 2'000'000));
}

TEST_F(FeedbackHandlerTest, ValidRfiRequestsAskAtMostOnceASecond) {
    const InputPacket valid = feedback_packet(InputKind::RfiRequest, kValidRfi);
    EXPECT_TRUE(asks(valid, 5'000'000));
    EXPECT_FALSE(asks(valid, 5'999'999));
    EXPECT_TRUE(asks(valid, 6'000'000));
    // Plain and rejected ones are not held back.
    EXPECT_TRUE(asks(feedback_packet(InputKind::RfiRequest), 6'000'001));
    EXPECT_TRUE(asks(feedback_packet(InputKind::RfiRequest, kRejectedRfi), 6'000'002));
    EXPECT_EQ(handler_.rfi_counters().valid, 3U);
}

}  // namespace
}  // namespace ox
