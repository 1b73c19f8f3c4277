#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "play/bitrate/simulated_session.h"

namespace ox::test {
namespace {

using testing::IsEmpty;

#ifdef __SANITIZE_THREAD__
constexpr uint32_t kSeeds = 1;  // hundreds of times slower
#else
constexpr uint32_t kSeeds = 3;
#endif
const std::vector<std::pair<double, double>> kSteps = {{0, 20'000}, {20, 3'000}, {40, 12'000}};

TEST(BitrateTest, FollowsThePathWithoutLongStalls) {
    struct Trace {
        const char* name;
        ShapedPath::Setup path;
        size_t most_changes = 18;
    };
    for (const auto& [name, path, most_changes] : {
             Trace{"clean", {}, 8},
             Trace{"loss", {.loss = 0.02}, 9},
             Trace{"jitter", {.loss = 0.02, .jitter_ms = 30, .reorders = true}},
             Trace{"jitter in order", {.loss = 0.02, .jitter_ms = 30}},
             Trace{"long queue", {.queue_ms = 1000, .loss = 0.02}, 12},
             Trace{"short queue", {.queue_ms = 40}, 8},
         }) {
        for (uint32_t seed = 1; seed <= kSeeds; ++seed) {
            SCOPED_TRACE(name + std::to_string(seed));
            ShapedPath::Setup setup = path;
            setup.steps = kSteps;
            setup.seed = seed;
            SimulatedSession session(setup, 10'000);
            session.run_until(22);
            EXPECT_LT(session.target_kbps(), 3'000);  // down at once
            EXPECT_GT(session.target_kbps(), 1'200);
            session.run_until(50);
            EXPECT_GT(session.target_kbps(), 0.7 * 12'000);
            session.run_until(60);
            EXPECT_LT(session.longest_stall_s, 1.0);
            EXPECT_LE(session.changes.size(), most_changes);
            for (size_t i = 1; i < session.changes.size(); ++i)
                EXPECT_GE(session.changes[i].at_s - session.changes[i - 1].at_s, 1.99);
        }
    }
}

TEST(BitrateTest, StaysWhereAChangeWouldNotHelp) {
    SimulatedSession still({.steps = kSteps, .loss = 0.02}, 10'000);
    still.need = 0.02;
    still.run_until(10);
    still.extra_delay_us = 100'000;  // the queue of somebody else
    still.run_until(11.5);
    still.extra_delay_us = 0;
    still.run_until(60);
    EXPECT_THAT(still.changes, IsEmpty());

    // Loss without a queue is no sign of too much; the limit is the only reason not to raise.
    SimulatedSession lossy({.steps = {{0, 1e6}}, .loss = 0.02}, 50'000);
    lossy.run_until(10);
    EXPECT_THAT(lossy.changes, IsEmpty());
}

TEST(BitrateTest, KeepsTheBitrateOverAHiccup) {
    SimulatedSession session({.steps = {{0, 20'000}}, .loss = 0.02}, 14'000);
    session.run_until(8);
    const uint32_t before = session.target_kbps();
    session.extra_delay_us = 300'000;
    session.run_until(8.4);
    session.extra_delay_us = 0;
    session.run_until(12);
    EXPECT_GT(session.target_kbps(), 0.7 * before);
}

TEST(BitrateTest, FindsRoomWhereAPictureIsOnePacket) {
    SimulatedSession session({.steps = {{0, 3'000}}}, 500);
    session.run_until(20);
    EXPECT_GT(session.target_kbps(), 2'000);
}

TEST(BitrateTest, LowersForASlowDecoderAsFarAsThatHelps) {
    SimulatedSession session({.steps = {{0, 1e6}}}, 10'000);
    session.decode_ms = 25;
    session.run_until(4);
    ASSERT_EQ(session.changes.size(), 2U);
    EXPECT_LT(session.target_kbps(), 8'000);
    session.run_until(40);
    EXPECT_GE(session.target_kbps(), 2'000);
    EXPECT_LT(session.target_kbps(), 2'400);
}

}  // namespace
}  // namespace ox::test
