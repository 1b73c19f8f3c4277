#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numbers>

#include "play/sound/sound_output.h"
#include "support/pulse_daemon.h"

namespace ox::play {
namespace {

constexpr double kPeriod = 48000.0 / 440;  // of the tone, in samples
constexpr double kStep = 2 * std::numbers::pi / kPeriod;

std::vector<int16_t> tone_frame(int number) {
    std::vector<int16_t> pcm;
    for (int i = number * 240; i < (number + 1) * 240; ++i)
        pcm.insert(pcm.end(), 2, static_cast<int16_t>(std::lround(16384 * std::sin(kStep * i))));
    return pcm;
}

struct Quality {
    double ppm = 0;   ///< by which the pitch is too high
    double bend = 0;  ///< largest second difference, in multiples of the tone's own
};

Quality measure(std::span<const float> played) {
    Quality quality;
    std::vector<double> rises;
    for (size_t i = 2; i < played.size(); ++i) {
        const double bend = std::abs(played[i] - 2.0 * played[i - 1] + played[i - 2]);
        quality.bend = std::max(quality.bend, bend / (0.5 * kStep * kStep));
        if (played[i - 1] < 0 && played[i] >= 0)
            rises.push_back(static_cast<double>(i) - played[i] / (played[i] - played[i - 1]));
    }
    const double periods = static_cast<double>(rises.size()) - 1;
    if (periods > 0) quality.ppm = (periods * kPeriod / (rises.back() - rises.front()) - 1) * 1e6;
    return quality;
}

// A source and a device with clocks of their own, in virtual time.
struct Simulation {
    std::function<double(int frame)> late_ms;
    double source_ppm = 0;
    double picture_age_ms = -1;  // < 0: no picture
    PlayoutBuffer buffer{};
    std::vector<float> played{};  // left
    int frame = 0;
    double arrival_us = 0;  // of `frame`
    double now_us = 1e6;

    PlayoutStats run(double seconds) {
        std::array<float, 512> pcm{};
        for (const double end = now_us + seconds * 1e6; now_us < end; now_us += 256 / 0.048) {
            for (; (arrival_us = next_arrival()) <= now_us; ++frame)
                buffer.push(tone_frame(frame), 1'000'000 + 5000U * static_cast<unsigned>(frame),
                            static_cast<uint64_t>(arrival_us));
            buffer.pull(pcm, static_cast<uint64_t>(now_us));
            for (size_t i = 0; i < pcm.size(); i += 2)
                played.push_back(pcm.at(i));
            if (picture_age_ms >= 0)
                buffer.picture_shown(static_cast<uint64_t>(now_us - picture_age_ms * 1000),
                                     static_cast<uint64_t>(now_us), 0);
        }
        return buffer.stats();
    }
    [[nodiscard]] double next_arrival() const {
        const double sent = 1e6 + frame * 5000 / (1 + source_ppm * 1e-6);
        return std::max(arrival_us, sent + late_ms(frame) * 1000);
    }
};

double late_at_times(int frame) {
    return frame % 1000 == 999 ? 25 : 0;
}

TEST(PlayoutBuffer, FollowsTheSourcesClockWithoutAClick) {
    for (const double ppm : {-100.0, 100.0}) {
        for (const int burst : {1, 4}) {  // frames at a time
            Simulation run{[burst](int frame) {
                               return 5 * (burst - 1 - frame % burst) + frame * 7919 % 101 * 0.04;
                           },
                           ppm};
            const auto stats = run.run(60);
            EXPECT_NEAR(measure(std::span(run.played).subspan(30 * 48000)).ppm, ppm, 25) << burst;
            EXPECT_NEAR(stats.drift_ppm, ppm, 25) << burst;
            EXPECT_LT(measure(run.played).bend, 1.1) << burst;
            EXPECT_NEAR(stats.level_ms, stats.target_ms, 1) << burst;
            EXPECT_EQ(stats.underruns, burst == 4 ? 1 : 0);
        }
    }
}

TEST(PlayoutBuffer, LateAndExcessiveSoundCausesNoClick) {
    Simulation late{late_at_times};
    EXPECT_EQ(late.run(4).target_ms, 20);
    auto stats = late.run(56);
    EXPECT_EQ(stats.underruns, 1) << "the target follows the first one";
    EXPECT_NEAR(stats.target_ms, 35, 3);
    EXPECT_LT(measure(late.played).bend, 1.1);
    // A stall, whose sound arrives late as a whole; then the path becomes 80 ms shorter.
    Simulation step{[](int frame) { return frame == 600 ? 200 : frame < 1200 ? 80 : 0; }};
    stats = step.run(12);
    EXPECT_EQ(stats.underruns, 1);
    EXPECT_NEAR(stats.dropped_ms, 100 + 80, 30);
    EXPECT_NEAR(stats.level_ms, stats.target_ms, 5);
    EXPECT_LT(measure(step.played).bend, 1.2);
}

TEST(PlayoutBuffer, StaysCloseToThePicture) {
    Simulation ahead{[](int) { return 0; }, 0, 100};
    EXPECT_NEAR(*ahead.run(30).lag_ms, -35, 3);
    Simulation behind{late_at_times, 0, 0};
    EXPECT_NEAR(*behind.run(30).lag_ms, 35, 3);
}

TEST(SoundOutput, ReturnsWithItsServer) {
    ::setenv("SDL_AUDIODRIVER", "pulseaudio", 1);
    test::PulseDaemon pulse;
    std::string error;
    SoundOutput output;
    ASSERT_TRUE(output.start(error)) << error;
    const auto opened = [&](size_t times) {
        return test::eventually([&] { return output.stats().openings >= times; },
                                std::chrono::seconds(30));
    };
    ASSERT_TRUE(opened(1));
    pulse.start();
    EXPECT_TRUE(opened(2));
}

}  // namespace
}  // namespace ox::play
