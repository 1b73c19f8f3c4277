// The recorder, and what becomes of sound that piled up.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <thread>

#include "audio/audio_capture.h"
#include "audio/live_edge.h"
#include "base/clock.h"
#include "support/environment.h"
#include "support/log_capture.h"
#include "support/log_file.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A PATH with programs of the test's own in place of the sound server's tools.
class AudioCaptureTest : public testing::Test {
  protected:
    void program(const std::string& name, const std::string& script) const {
        ::chmod(dir_.write(name, "#!/bin/sh\n" + script + "\n").c_str(), 0755);
    }
    test::TempDir dir_;
    test::Environment path_{"PATH", dir_.path().string() + ":" + std::getenv("PATH")};
    AudioCapture capture_;
    std::vector<int16_t> samples_;
};

TEST_F(AudioCaptureTest, RecordsTheMonitorOfTheDefaultOutputOrLetsTheRecorderChoose) {
    program("parec", "echo \"$@\" > " + dir_.file("args") +
                         "; printf '\\001\\000\\377\\377'; exec sleep 60");
    const std::string rest = "--format=s16le --rate 48000 --channels 2 --latency-msec=5 --raw";
    for (const auto& [pactl, expected] :
         {std::pair{"[ \"$*\" = get-default-sink ] && printf 'speakers \\n'",
                    "--device speakers.monitor " + rest},
          {"echo error >&2; exit 1", rest}}) {
        program("pactl", pactl);
        ASSERT_TRUE(capture_.start(48000, 2, "", 5));
        ASSERT_TRUE(capture_.read(samples_, 1));
        EXPECT_EQ(samples_, (std::vector<int16_t>{1, -1}));
        EXPECT_EQ(test::LogFile(dir_.file("args")).lines().at(0), expected);
        capture_.stop();
    }
}

TEST_F(AudioCaptureTest, ASoundServerThatDoesNotAnswerIsNotWaitedForLong) {
    for (const auto& [pactl, expected] :
         {std::pair{"printf half; exec sleep 60", ""}, {"echo out; sleep 5 &", "out.monitor"}}) {
        program("pactl", pactl);
        const auto before = SteadyClock::now();
        EXPECT_EQ(AudioCapture().default_monitor(), expected);
        EXPECT_LT(SteadyClock::now() - before, seconds(10));
    }
}

TEST_F(AudioCaptureTest, AStopIsSeenSoonAlsoByAReaderOfAStubbornRecorder) {
    program("parec", "trap '' TERM; printf a; while :; do sleep 1; done");
    const test::LogCapture log;
    ASSERT_TRUE(capture_.start(48000, 1, "x", 5));
    const pid_t recorder = capture_.pid();
    std::atomic<bool> failed{false};
    std::thread reader([&] {
        std::vector<int16_t> samples;
        failed = !capture_.read(samples, 240);
    });
    const auto before = SteadyClock::now();
    capture_.stop();
    reader.join();
    EXPECT_LT(SteadyClock::now() - before, seconds(3));
    EXPECT_TRUE(failed);
    EXPECT_EQ(log.text().find("WARN"), std::string::npos);
    ::kill(recorder, SIGKILL);
}

// What is late is seen where an agent stands still.
TEST(LiveEdge, NeitherAShortStallNorASoundServerThatDeliversMuchAtOnceIsLate) {
    using Time = SteadyClock::time_point;
    constexpr microseconds kBuffer{5000};
    LiveEdge edge;
    Time now{kBuffer};
    ASSERT_TRUE(edge.keep(kBuffer, Time{}, now));
    now += milliseconds(54);
    for (int queued = 0; queued < 10; ++queued)
        EXPECT_TRUE(edge.keep(kBuffer, {}, now += microseconds(20)));
    for (int delivery = 0; delivery < 20; ++delivery) {
        now += milliseconds(100);
        EXPECT_TRUE(edge.keep(kBuffer, now - milliseconds(10), now));
        for (int i = 1; i < 20; ++i)
            EXPECT_TRUE(edge.keep(kBuffer, {}, now));
    }
}

}  // namespace
}  // namespace ox
