// The recorder, what is dropped as late, and the stream from a sound server to a launcher.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numbers>
#include <optional>
#include <thread>
#include <utility>

#include "audio/audio_capture.h"
#include "audio/audio_stream.h"
#include "audio/live_edge.h"
#include "base/clock.h"
#include "launcher/client/audio_receiver.h"
#include "launcher/client/media_socket.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/pulse_daemon.h"
#include "support/temp_dir.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A folder in front of PATH with programs of the test's own in place of the sound server's tools.
class FakePrograms {
  public:
    void add(const std::string& name, const std::string& script,
             const std::string& interpreter = "/bin/sh") const {
        ::chmod(folder_.write(name, "#!" + interpreter + "\n" + script + "\n").c_str(), 0755);
    }
    [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }
    /// Until then libpulse finds no server.
    void let_server_answer() const {
        std::filesystem::create_symlink(
            std::string(std::getenv("XDG_RUNTIME_DIR")) + "/pulse/native", file("late"));
    }

  private:
    test::TempDir folder_;
    test::Environment path_{"PATH", folder_.path().string() + ":" + std::getenv("PATH")};
    test::Environment folder_variable_{"FAKE_PROGRAMS", file("")};
    test::Environment server_{"PULSE_SERVER", "unix:" + file("late")};
};

struct AudioCaptureTest : testing::Test {
    FakePrograms programs_;
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

constexpr std::array<uint8_t, 32> kKey{7, 7, 7};
// Whole periods in a frame of 5 ms, so that the tones do not leak into each other.
constexpr int kTone = 400;
constexpr int kOtherTone = 3000;
constexpr int kNoTone = 10'000;
constexpr double kPlayed = 16'384;
/// A tone has 16384; a click, as at its start, a few hundred.
constexpr double kHeard = 5000;

/// Amplitude of one frequency in the left channel of 48 kHz stereo samples.
double amplitude(std::span<const int16_t> samples, int hertz) {
    double in_phase = 0;
    double quadrature = 0;
    for (size_t i = 0; i < samples.size(); i += 2) {
        const double angle = std::numbers::pi * hertz * static_cast<double>(i) / 48000;
        in_phase += samples[i] * std::cos(angle);
        quadrature += samples[i] * std::sin(angle);
    }
    return 4 * std::hypot(in_phase, quadrature) / static_cast<double>(samples.size());
}

/// Streams a sound server's output to a launcher's receiver.
struct AudioStreamTest : testing::Test {
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(socket_.open(0, error) && decoder_.open(error)) << error;
        ASSERT_TRUE(sender_.open("127.0.0.1", socket_.port(), 0));
        ASSERT_TRUE(pulse_.play_tone("out", kTone));
    }
    bool start(AudioStream& stream) {
        return stream.start(sender_, kKey.data(), kKey.size(), 48000, 2, 128000);
    }
    bool start() { return start(stream_); }
    void receive(milliseconds limit) {
        socket_.receive(limit, [&](std::span<const uint8_t> datagram) {
            receiver_.on_datagram(datagram, steady_now_us());
        });
    }

    /// Receives until 50 ms in a row carry the full `hertz` tone. `forbidden` must never be heard.
    bool receives_tone(int hertz, int forbidden) {
        int in_a_row = 0;
        const auto deadline = SteadyClock::now() + seconds(30);
        while (in_a_row < 10 && SteadyClock::now() < deadline) {
            receive(milliseconds(100));
            while (const auto frame = receiver_.next_frame()) {
                const auto samples = decoder_.decode(*frame);
                EXPECT_LT(amplitude(samples, forbidden), kHeard);
                const bool heard = std::abs(amplitude(samples, hertz) / kPlayed - 1) < 0.1;
                in_a_row = heard ? in_a_row + 1 : 0;
            }
        }
        return in_a_row >= 10;
    }

    test::PulseDaemon pulse_;
    launcher::MediaSocket socket_;
    launcher::AudioReceiver receiver_{kKey};
    launcher::AudioDecoder decoder_;
    UdpSender sender_;
    AudioStream stream_;
};

TEST_F(AudioStreamTest, TheMicrophoneIsNotHeardWhenTheOutputGoes) {
    const test::LogCapture log;
    ASSERT_TRUE(pulse_.play_tone("hidden", kOtherTone));  // the microphone's input
    ASSERT_TRUE(start() && receives_tone(kTone, kOtherTone));
    // The server now moves the recording to the microphone and the tone to the spare output.
    ASSERT_TRUE(pulse_.remove_sink("out"));
    EXPECT_TRUE(test::eventually(
        [&] {
            EXPECT_TRUE(receives_tone(kTone, kOtherTone));
            return log.times("parec started (source=spare.monitor") == 1;
        },
        seconds(30)));
    EXPECT_TRUE(receives_tone(kTone, kOtherTone));
    EXPECT_EQ(log.times("[WARN ] AudioStream: the recording was moved off the output's monitor"),
              1);
}

TEST_F(AudioStreamTest, AChangeOfTheDefaultOutputIsFollowed) {
    ASSERT_TRUE(pulse_.play_tone("spare", kOtherTone));
    ASSERT_TRUE(start() && receives_tone(kTone, kOtherTone));
    ASSERT_TRUE(pulse_.pactl("set-default-sink spare"));
    EXPECT_TRUE(receives_tone(kOtherTone, kNoTone));
}

TEST_F(AudioStreamTest, EndsInsteadOfReusingSequenceNumbers) {
    const test::LogCapture log;
    PacketNumbers numbers(PacketNumbers::kEnd - 8, PacketNumbers::kEnd);
    AudioStream stream;
    stream.set_numbers(numbers);
    stream.set_parity_enabled(true);
    ASSERT_TRUE(start(stream));
    EXPECT_TRUE(test::eventually([&] { return !stream.running(); }, seconds(10)));
    EXPECT_EQ(log.times("[ERROR] AudioStream: all sequence numbers of this key are used up"), 1);
    receive(seconds(1));
    const auto first = receiver_.next_frame();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->sequence, UINT32_MAX - 7);
    EXPECT_EQ(receiver_.stats().data_packets, 8U);
    EXPECT_EQ(receiver_.stats().repair_packets, 4U);
    EXPECT_EQ(receiver_.stats().frames.lost, 0U);
}

TEST_F(AudioStreamTest, ARecorderUnknownToTheServerIsTrustedIfItsSourceIsKnown) {
    const test::LogCapture log;
    const auto is_sent = [&] {
        const uint64_t before = sender_.packets_sent();
        return test::eventually([&] { return sender_.packets_sent() >= before + 20; }, seconds(10));
    };
    const auto make_tools = [](const std::string& pactl) {
        auto tools = std::make_unique<FakePrograms>();
        tools->add("parec", "while head -c 960 /dev/zero; do sleep 0.005; done");
        tools->add("pactl", pactl);
        return tools;
    };
    auto tools = make_tools("echo out");
    for (const bool with_server : {false, true}) {
        if (with_server) tools->let_server_answer();
        AudioStream stream;
        ASSERT_TRUE(start(stream));
        EXPECT_TRUE(is_sent());
    }
    EXPECT_EQ(log.times("WARN"), 0);

    const uint64_t before = sender_.packets_sent();
    tools.reset();
    tools = make_tools("exit 1");
    ASSERT_TRUE(start());
    constexpr const char* kDropped = "[WARN ] AudioStream: no output is known and no sound server";
    EXPECT_TRUE(test::eventually([&] { return log.times(kDropped) == 1; }));
    EXPECT_EQ(sender_.packets_sent(), before);
    tools->let_server_answer();
    EXPECT_TRUE(is_sent());
    EXPECT_EQ(log.times("parec started (source=out.monitor"), 3);
    stream_.stop();
}

/// Stops a thread of this process wherever it is, as if it were not scheduled.
class HeldThread {
  public:
    explicit HeldThread(const std::string& name) {
        ::signal(SIGUSR2, [](int) {
            for (arrived = true; held;)
                ::usleep(1000);
        });
        held = true;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string comm;
            std::getline(std::ifstream(entry.path() / "comm") >> std::ws, comm);
            const int thread = std::stoi(entry.path().filename().string());
            if (comm == name) ::tgkill(::getpid(), thread, SIGUSR2);
        }
        EXPECT_TRUE(test::eventually([] { return arrived.load(); }));
    }
    ~HeldThread() { held = arrived = false; }

  private:
    static inline std::atomic<bool> held{false};
    static inline std::atomic<bool> arrived{false};
};

TEST_F(AudioStreamTest, SoundOfAStallIsDropped) {
    // Real-time silence with 300 ms of noise on request.
    const FakePrograms tools;
    tools.add("pactl", "echo out");
    tools.add("parec", R"(import os, sys, time
folder = os.environ["FAKE_PROGRAMS"]
loud = (b"\x00\x40" * 120 + b"\x00\xc0" * 120) * 2
def play(frame):
    sys.stdout.buffer.write(frame)
    sys.stdout.buffer.flush()
    time.sleep(0.005)
while not os.path.exists(folder + "/stall"):
    play(bytes(960))
for _ in range(60):
    play(loud)
open(folder + "/over", "w")
while True:
    play(bytes(960))
)",
              "/usr/bin/env python3");
    ASSERT_TRUE(start());
    ASSERT_TRUE(test::eventually([&] { return sender_.packets_sent() > 20; }, seconds(30)));
    {
        const HeldThread held("ox-audio");
        std::ofstream(tools.file("stall")).flush();
        ASSERT_TRUE(test::eventually([&] { return std::filesystem::exists(tools.file("over")); }));
    }
    const uint64_t enough = sender_.packets_sent() + 100;
    ASSERT_TRUE(test::eventually([&] { return sender_.packets_sent() > enough; }));
    stream_.stop();
    receive(milliseconds(100));
    int frames = 0;
    int loud = 0;
    for (; const auto frame = receiver_.next_frame(); ++frames)
        if (amplitude(decoder_.decode(*frame), kTone) > kHeard) ++loud;
    EXPECT_GE(frames, 100);
    EXPECT_LE(loud, 11) << "more than 50 ms of it";
}

}  // namespace
}  // namespace ox
