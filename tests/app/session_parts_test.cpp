// The decisions of a session that need no clock of their own: keyframes, pacing, settings.

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstring>

#include "app/session/feedback_handler.h"
#include "app/session/frame_pacer.h"
#include "app/session/keyframe_policy.h"
#include "app/session/session_signals.h"
#include "app/session/stream_settings.h"

namespace ox {
namespace {

TEST(KeyframeRequest, OneAlreadyUnderWayAnswersIt) {
    struct Case {
        float rtt_ms;
        int64_t after_us;  ///< time from the keyframe to the request
        bool in_flight;
    };
    const Case cases[] = {
        {20, 169'999, true},     {20, 170'000, false},   {0, 249'999, true},
        {0, 250'000, false},     {-1, 249'999, true},    {999, 1'148'999, true},
        {999, 1'149'000, false}, {1000, 250'000, false},
    };
    constexpr int64_t kSent = 5'000'000;
    for (const Case& c : cases) {
        SessionSignals signals;
        signals.rtt_ms = c.rtt_ms;
        signals.last_keyframe_sent_us = kSent;
        request_keyframe(signals, kSent + c.after_us);
        EXPECT_EQ(signals.keyframe_requested, !c.in_flight) << c.rtt_ms << " " << c.after_us;
        EXPECT_EQ(signals.answered_in_flight, c.in_flight ? 1U : 0U);
    }
    // Before the first keyframe nothing is under way, however early the clock.
    SessionSignals fresh;
    request_keyframe(fresh, 10);
    EXPECT_TRUE(fresh.keyframe_requested);
}

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
    EXPECT_EQ(
        (std::array{signals_.loss_pct.load(), signals_.rtt_ms.load(), signals_.decoded_fps.load()}),
        (std::array{1.25F, 31.0F, 60.0F}));
    EXPECT_EQ(signals_.last_media_feedback_us, 77);
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

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

const SteadyClock::time_point kStart{std::chrono::seconds(1000)};

TEST(FramePacer, DoesNotDriftAtRatesThatAreNoWholeNanoseconds) {
    for (const uint32_t fps : {1U, 7U, 60U, 120U}) {
        FramePacer pacer(fps, kStart);
        SteadyClock::time_point last{};
        for (uint32_t i = 0; i < fps * 100; ++i) {
            last = pacer.next_deadline();
            pacer.arrived(last);
        }
        EXPECT_EQ(last, kStart + std::chrono::seconds(100)) << fps;
    }
}

TEST(FramePacer, CatchesUpWithinFourIntervalsAndStartsAfreshBeyond) {
    FramePacer pacer(50, kStart);  // 20 ms
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(20));
    pacer.arrived(kStart + milliseconds(100));  // exactly four late: the schedule stands
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(40));
    const auto late = kStart + milliseconds(120) + nanoseconds(1);
    pacer.arrived(late);
    EXPECT_EQ(pacer.next_deadline(), late + milliseconds(20));
    pacer.reset(kStart + milliseconds(500));
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(520));
}

TEST(StreamSettings, WhatTheLauncherAsksForIsBroughtIntoRange) {
    struct Case {
        std::array<int32_t, 5> asked;  ///< codec, width, height, fps, kbit/s
        VideoCodec codec;
        std::array<uint32_t, 4> got;  ///< without the codec
    };
    const Case cases[] = {
        {{0, 1920, 1080, 60, 15000}, VideoCodec::H264, {1920, 1080, 60, 15000}},
        {{1, 8000, 8000, 500, 50}, VideoCodec::Hevc, {4096, 4096, 120, 200}},
        {{2, 1367, 769, 0, 999'999}, VideoCodec::H264, {1366, 768, 1, 200'000}},
        {{-7, INT_MIN, 17, -1, INT_MIN}, VideoCodec::H264, {16, 16, 1, 200}},
        {{INT_MAX, INT_MAX, 0, INT_MAX, INT_MAX}, VideoCodec::H264, {4096, 16, 120, 200'000}},
    };
    for (const Case& c : cases) {
        const auto [codec, width, height, fps, bitrate] = c.asked;
        const EncoderSettings got = encoder_settings(
            {.codec = codec, .width = width, .height = height, .fps = fps, .bitrate = bitrate},
            EncoderBackend::Software);
        EXPECT_EQ(got.codec, c.codec);
        EXPECT_EQ((std::array{got.width, got.height, got.fps, got.bitrate_kbps}), c.got);
        // Half as much again as the bitrate, without overflow at the top.
        EXPECT_EQ(uint64_t{pacing_rate_bps(got.bitrate_kbps)}, uint64_t{got.bitrate_kbps} * 1500);
    }
}

}  // namespace
}  // namespace ox
