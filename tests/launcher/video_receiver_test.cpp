#include "launcher/client/video_receiver.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "launcher/sealed_datagrams.h"

namespace ox::launcher {
namespace {

constexpr std::array<uint8_t, 32> kKey = {1, 2, 3};

// A receiver, and the ids of the frames that it delivered.
struct Fixture {
    explicit Fixture(const VideoReceiver::Config& config = {}) : receiver(kKey, config) {}
    auto ask(uint64_t later_us = 0) { return receiver.take_keyframe_request(now + later_us); }

    /// Three packets of one frame, and parity for a keyframe; one of them may be lost.
    void feed(uint32_t id, bool keyframe, size_t without = SIZE_MAX) {
        EncodedFrame frame;
        frame.data.assign(3000, 0x55);
        frame.frame_id = id;
        frame.timestamp = 1;
        frame.keyframe = keyframe;
        const auto datagrams = test::sealed_datagrams(frame, kKey.data());
        for (size_t i = 0; i < datagrams.size(); ++i)
            if (i != without) receiver.on_datagram(datagrams[i], now);
        collect();
    }
    void pass_time(uint64_t us) {
        now += us;
        receiver.on_time(now);
        collect();
    }
    void collect() {
        while (const auto frame = receiver.next_frame())
            delivered.push_back(frame->frame_id);
    }

    VideoReceiver receiver;
    uint64_t now = 1'000'000;
    std::vector<uint32_t> delivered;
};

TEST(VideoReceiver, WithholdsFramesAfterALossUntilAKeyframe) {
    for (const bool decode_damaged : {false, true}) {
        Fixture f({.limits = {}, .decode_damaged = decode_damaged});
        f.feed(0, true);
        f.feed(1, false);
        f.feed(2, false, 1);  // no parity on this one: lost
        f.feed(3, false);
        EXPECT_FALSE(f.ask()) << "may still arrive";
        f.pass_time(300'000);
        EXPECT_TRUE(f.ask());
        EXPECT_FALSE(f.ask(249'999));
        EXPECT_TRUE(f.ask(250'000)) << "the keyframe may be lost";
        f.feed(4, false);
        f.feed(5, true, 2);  // repaired from parity
        f.feed(6, false);
        EXPECT_FALSE(f.ask(900'000));
        using Ids = std::vector<uint32_t>;
        EXPECT_EQ(f.delivered, decode_damaged ? Ids({0, 1, 3, 4, 5, 6}) : Ids({0, 1, 5, 6}));
        EXPECT_EQ(f.receiver.stats().assembly.frames_lost, 1U);
        EXPECT_EQ(f.receiver.stats().assembly.frames_repaired, 1U);
        EXPECT_EQ(f.receiver.stats().keyframe_requests, 2U);
    }
}

TEST(VideoReceiver, RequestsAMissingFirstKeyframe) {
    Fixture f;
    EXPECT_FALSE(f.ask(9'000'000)) << "no media, no request";
    f.feed(7, false);
    EXPECT_FALSE(f.ask(249'000));
    EXPECT_TRUE(f.ask(250'000));
    f.receiver.on_frame_dropped();
    EXPECT_TRUE(f.delivered.empty());
    EXPECT_EQ(f.receiver.stats().frames_withheld, 1U);
}

TEST(VideoReceiver, NamesTheMissingFrames) {
    Fixture f;
    for (const uint32_t id : {100U, 101U})
        f.feed(id, id == 100);
    f.pass_time(300'000);
    f.feed(102, false, 1);  // lost in part; 103 never comes
    f.feed(104, false);
    f.pass_time(300'000);
    f.feed(105, false, 1);
    f.pass_time(300'000);
    // 105 may still be completed.
    for (uint8_t attempt = 0; attempt < 3; ++attempt) {
        const auto request = f.ask();
        ASSERT_TRUE(request && request->lost) << +attempt;
        EXPECT_EQ(request->lost->last_delivered, 101U);
        EXPECT_EQ(request->lost->first_missing, 102U);
        EXPECT_EQ(request->lost->last_missing, attempt < 2 ? 103U : 105U);
        EXPECT_EQ(request->lost->attempt, attempt);
        f.pass_time(300'000);
        if (attempt == 1) {
            f.feed(106, false);
            f.pass_time(300'000);
        }
    }
    const auto plain = f.ask();
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->lost) << "an agent accepts three attempts";
    EXPECT_TRUE(f.receiver.stats().awaiting_keyframe);
    f.feed(107, true);
    EXPECT_FALSE(f.ask());
    EXPECT_FALSE(f.receiver.stats().awaiting_keyframe);
}

}  // namespace
}  // namespace ox::launcher
