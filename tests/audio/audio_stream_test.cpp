#include "audio/audio_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <numbers>

#include "launcher/audio_decoder.h"
#include "launcher/audio_receiver.h"
#include "launcher/media_socket.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/pulse_daemon.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::array<uint8_t, 32> kKey{7, 7, 7};
// Whole numbers of periods in a frame of 5 ms, so that each is measured without the others.
constexpr int kTone = 400;
constexpr int kOtherTone = 3000;
constexpr int kNoTone = 10'000;
constexpr double kPlayed = 16'384;
/// A tone that is there at all has 16384; a click, as at its start, has some hundred.
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

/// A stream of what a sound server plays, to a launcher's receiver.
class AudioStreamTest : public testing::Test {
  protected:
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

    /// Listens until 50 ms in a row carry `hertz` as it is played. Nowhere may `forbidden` be
    /// heard.
    bool hears(int hertz, int forbidden) {
        int in_a_row = 0;
        const auto deadline = SteadyClock::now() + seconds(30);
        while (in_a_row < 10 && SteadyClock::now() < deadline) {
            socket_.receive(milliseconds(100), [&](std::span<const uint8_t> datagram) {
                receiver_.on_datagram(datagram, steady_now_us());
            });
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
    ASSERT_TRUE(pulse_.play_tone("hidden", kOtherTone));  // what the microphone hears
    ASSERT_TRUE(start());
    ASSERT_TRUE(hears(kTone, kOtherTone));
    // The server now moves the recording to the microphone and the tone to the spare output.
    ASSERT_TRUE(pulse_.remove_sink("out"));
    EXPECT_TRUE(test::eventually(
        [&] {
            EXPECT_TRUE(hears(kTone, kOtherTone));
            return log.times("parec started (source=spare.monitor") == 1;
        },
        seconds(30)));
    EXPECT_TRUE(hears(kTone, kOtherTone));
    EXPECT_EQ(log.count("WARN",
                        "AudioStream: the recording was moved off the output's monitor — its sound "
                        "is dropped, opening the present output"),
              1);
}

TEST_F(AudioStreamTest, AChangeOfTheDefaultOutputIsFollowed) {
    ASSERT_TRUE(pulse_.play_tone("spare", kOtherTone));
    ASSERT_TRUE(start());
    ASSERT_TRUE(hears(kTone, kOtherTone));
    ASSERT_TRUE(pulse_.pactl("set-default-sink spare"));
    EXPECT_TRUE(hears(kOtherTone, kNoTone));
}

TEST_F(AudioStreamTest, EndsWithItsNumbersInsteadOfUsingThemAgain) {
    const test::LogCapture log;
    PacketNumbers numbers(PacketNumbers::kEnd - 8, PacketNumbers::kEnd);
    stream_.set_numbers(numbers);
    stream_.set_parity_enabled(true);
    ASSERT_TRUE(start());
    EXPECT_TRUE(test::eventually([&] { return !stream_.running(); }, seconds(30)));
    EXPECT_EQ(log.count("ERROR",
                        "AudioStream: all sequence numbers of this key are used up — stopping "
                        "audio"),
              1);
    socket_.receive(seconds(1), [&](std::span<const uint8_t> datagram) {
        receiver_.on_datagram(datagram, steady_now_us());
    });
    const auto first = receiver_.next_frame();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->sequence, UINT32_MAX - 7);
    EXPECT_EQ(receiver_.stats().data_packets, 8U);
    EXPECT_EQ(receiver_.stats().repair_packets, 4U);
    EXPECT_EQ(receiver_.stats().frames.lost, 0U);
}

TEST_F(AudioStreamTest, ARecorderThatNoServerKnowsIsBelievedFromItsFirstFrameOn) {
    const test::TempDir folder;
    std::ofstream(folder.file("parec")) << "#!/bin/sh\nhead -c 19200 /dev/zero\nexec sleep 60\n";
    ::chmod(folder.file("parec").c_str(), 0755);
    const test::Environment path("PATH", folder.path().string() + ":" + std::getenv("PATH"));
    for (const auto& server : {std::optional<std::string>{}, {"unix:/nowhere"}}) {
        const test::Environment address("PULSE_SERVER", server);
        const uint64_t before = sender_.packets_sent();
        AudioStream stream;
        ASSERT_TRUE(start(stream));
        EXPECT_TRUE(
            test::eventually([&] { return sender_.packets_sent() == before + 20; }, seconds(10)));
    }
}

}  // namespace
}  // namespace ox
