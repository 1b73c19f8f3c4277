// The recorder, and what is dropped as late.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <optional>
#include <thread>
#include <utility>

#include "audio/audio_capture.h"
#include "audio/fake_programs.h"
#include "audio/live_edge.h"
#include "base/clock.h"
#include "support/log_capture.h"

namespace ox {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct AudioCaptureTest : testing::Test {
    test::FakePrograms programs_;
    AudioCapture capture_;
    std::vector<int16_t> samples_;
};

TEST_F(AudioCaptureTest, RecordsTheMonitorOfTheDefaultOutputOrLetsTheRecorderChoose) {
    const std::string arguments = programs_.file("arguments");
    programs_.add("parec",
                  "echo \"$@\" > " + arguments + "\nprintf '\\1\\0\\377\\377'; exec sleep 60");
    const std::string rest = "--format=s16le --rate 48000 --channels 2 --latency-msec=5 --raw";
    for (const auto& [pactl, expected] :
         {std::pair{"[ \"$*\" = get-default-sink ] && printf 'speakers \\n'",
                    "--device speakers.monitor " + rest},
          {"echo error >&2; exit 1", rest}}) {
        programs_.add("pactl", pactl);
        ASSERT_TRUE(capture_.start(48000, 2, "", 5));
        ASSERT_TRUE(capture_.read(samples_, 1, {}));
        EXPECT_EQ(samples_, (std::vector<int16_t>{1, -1}));
        EXPECT_EQ(test::read_file(arguments), expected + "\n");
        capture_.stop();
    }
}

TEST_F(AudioCaptureTest, ASoundServerThatDoesNotAnswerTimesOut) {
    for (const auto& [pactl, expected] :
         {std::pair{"printf half; exec sleep 60", ""}, {"echo out; sleep 5 &", "out.monitor"}}) {
        programs_.add("pactl", pactl);
        const auto before = SteadyClock::now();
        EXPECT_EQ(AudioCapture().default_monitor(), expected);
        EXPECT_LT(SteadyClock::now() - before, seconds(10));
    }
}

TEST_F(AudioCaptureTest, AStopRequestEndsABlockedReadAndStopDoesNotWaitForAHungRecorder) {
    programs_.add("parec", "trap '' TERM; printf a; while :; do sleep 1; done");
    const test::LogCapture log;
    ASSERT_TRUE(capture_.start(48000, 1, "x", 5));
    ASSERT_TRUE(capture_.wait_readable(seconds(10), {}));  // the trap is set
    const pid_t recorder = capture_.pid();
    std::atomic<bool> failed{false};
    std::jthread reader([&](const std::stop_token& stop) {
        std::vector<int16_t> samples;
        failed = !capture_.read(samples, 240, stop);
    });
    const auto before = SteadyClock::now();
    reader.request_stop();
    reader.join();
    capture_.stop();
    EXPECT_LT(SteadyClock::now() - before, seconds(3));
    EXPECT_TRUE(failed);
    EXPECT_EQ(log.text().find("WARN"), std::string::npos);
    ::kill(recorder, SIGKILL);
}

constexpr microseconds kBuffer{5000};

TEST(LiveEdge, AStallOfFiftyMillisecondsIsPlayedAndMoreIsDroppedUpToTheNewest) {
    using Time = SteadyClock::time_point;
    for (const auto stall : {milliseconds(54), milliseconds(200), milliseconds(5000)}) {
        for (const bool while_waiting : {false, true}) {
            LiveEdge edge;
            Time now{milliseconds(5)};
            ASSERT_TRUE(edge.is_live(kBuffer, Time{}, now));
            std::optional<Time> empty;
            if (while_waiting) empty = now;
            now += stall;
            // Queued sound is read without waiting.
            const auto queued = stall / kBuffer;
            int64_t kept = 0;
            for (int64_t i = 0; i < queued; ++i) {
                now += microseconds(20);
                if (edge.is_live(kBuffer, std::exchange(empty, {}), now)) ++kept;
            }
            EXPECT_EQ(kept, stall < milliseconds(55) ? queued : 0) << stall.count();
            EXPECT_TRUE(edge.is_live(kBuffer, now, now + milliseconds(5)));
        }
    }
}

TEST(LiveEdge, ASoundServerThatDeliversInBurstsIsNotLate) {
    LiveEdge edge;
    for (SteadyClock::time_point now{}; now.time_since_epoch() < seconds(2);
         now += milliseconds(100)) {
        for (int i = 0; i < 20; ++i) {
            std::optional<SteadyClock::time_point> empty;
            if (i == 0) empty = now - milliseconds(10);
            EXPECT_TRUE(edge.is_live(kBuffer, empty, now));
        }
    }
}

}  // namespace
}  // namespace ox
