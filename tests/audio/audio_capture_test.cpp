// The recorder, and what becomes of sound that piled up.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <thread>
#include <utility>

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
    /// A recorder that notes its arguments and then does `body`.
    void recorder(const std::string& body) const {
        program("parec", "echo \"$@\" > " + dir_.file("args") + "\n" + body);
    }
    [[nodiscard]] std::string arguments() const {
        return test::LogFile(dir_.file("args")).lines().at(0);
    }

    test::TempDir dir_;
    test::Environment path_{"PATH", dir_.path().string() + ":" + std::getenv("PATH")};
    AudioCapture capture_;
    std::vector<int16_t> samples_;
};

TEST_F(AudioCaptureTest, RecordsTheMonitorOfTheDefaultOutputOrLetsTheRecorderChoose) {
    recorder("printf '\\001\\000\\377\\377'; exec sleep 60");
    const std::string rest = "--format=s16le --rate 48000 --channels 2 --latency-msec=5 --raw";
    for (const auto& [pactl, expected] :
         {std::pair{"[ \"$*\" = get-default-sink ] && printf 'speakers \\n'",
                    "--device speakers.monitor " + rest},
          {"echo error >&2; exit 1", rest}}) {
        program("pactl", pactl);
        ASSERT_TRUE(capture_.start(48000, 2, "", 5));
        ASSERT_TRUE(capture_.read(samples_, 1));
        EXPECT_EQ(samples_, (std::vector<int16_t>{1, -1}));
        EXPECT_EQ(arguments(), expected);
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
    recorder("trap '' TERM; printf a; while :; do sleep 1; done");
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

constexpr microseconds kBuffer{5000};

TEST(LiveEdge, AStallOfFiftyMillisecondsIsPlayedAndMoreIsDroppedUpToTheNewest) {
    using Time = SteadyClock::time_point;
    for (const auto stall : {milliseconds(54), milliseconds(200), milliseconds(5000)}) {
        for (const bool while_waiting : {false, true}) {
            LiveEdge edge;
            Time now{milliseconds(5)};
            ASSERT_TRUE(edge.keep(kBuffer, Time{}, now));
            std::optional<Time> dry;
            if (while_waiting) dry = now;
            now += stall;
            // What piled up comes without a wait, as fast as it is read.
            const auto queued = stall / kBuffer;
            int64_t kept = 0;
            for (int64_t i = 0; i < queued; ++i) {
                now += microseconds(20);
                if (edge.keep(kBuffer, std::exchange(dry, {}), now)) ++kept;
            }
            EXPECT_EQ(kept, stall < milliseconds(55) ? queued : 0) << stall.count();
            EXPECT_TRUE(edge.keep(kBuffer, now, now + milliseconds(5)));
        }
    }
}

TEST(LiveEdge, ASoundServerThatDeliversMuchAtOnceIsNotLate) {
    LiveEdge edge;
    for (SteadyClock::time_point now{}; now.time_since_epoch() < seconds(2);
         now += milliseconds(100)) {
        for (int i = 0; i < 20; ++i) {
            std::optional<SteadyClock::time_point> dry;
            if (i == 0) dry = now - milliseconds(10);
            EXPECT_TRUE(edge.keep(kBuffer, dry, now));
        }
    }
}

}  // namespace
}  // namespace ox
