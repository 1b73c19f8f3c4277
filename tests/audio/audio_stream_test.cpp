#include "audio/audio_stream.h"

#include <gtest/gtest.h>
#include <opus/opus.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "launcher/media_socket.h"
#include "launcher/packet_opener.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/pulse_daemon.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::array<uint8_t, 32> kKey{7, 7, 7};
constexpr int kTone = 440;
constexpr int kOtherTone = 3000;
/// A tone that is there at all has 8192; a click, as from a player that was late, has some hundred.
constexpr double kHeard = 2500;

/// Amplitude of one frequency in 48 kHz samples (Goertzel's algorithm).
double amplitude(const std::vector<double>& samples, int hertz) {
    const double c = 2 * std::cos(2 * std::numbers::pi * hertz / 48000);
    double a = 0;
    double b = 0;
    for (const double sample : samples) {
        const double next = sample + c * a - b;
        b = a;
        a = next;
    }
    return std::sqrt(std::max(0.0, a * a + b * b - c * a * b)) * 2 /
           static_cast<double>(samples.size());
}

/// The launcher's end: receives, opens and decodes the stream.
class Listener {
  public:
    Listener() {
        std::string text;
        EXPECT_TRUE(socket_.open(0, text)) << text;
        int error = 0;
        decoder_.reset(::opus_decoder_create(48000, 2, &error));
    }
    [[nodiscard]] uint16_t port() const { return socket_.port(); }

    /// The left channels of the data packets that lie there, 240 samples each. Waits up to `limit`
    /// for the first one.
    std::vector<std::vector<double>> receive(milliseconds limit) {
        std::vector<std::vector<double>> packets;
        socket_.receive(limit, [&](std::span<const uint8_t> datagram) {
            const auto packet = opener_.open(datagram);
            ASSERT_TRUE(packet);
            if (packet->header.flags == 0x0C) packets.push_back(decode(packet->payload));
        });
        return packets;
    }

    /// Decodes until 50 ms in a row carry `hertz` at about the played level. False at the limit.
    /// Nowhere may `forbidden` be heard.
    bool hears(int hertz, int forbidden, seconds limit) {
        std::vector<double> window;
        bool heard = false;
        for (const auto deadline = SteadyClock::now() + limit;
             !heard && SteadyClock::now() < deadline;) {
            for (const auto& samples : receive(milliseconds(100))) {
                // Within one packet the tones are 1 and 15 periods long: far enough apart.
                EXPECT_LT(amplitude(samples, forbidden), kHeard);
                window.insert(window.end(), samples.begin(), samples.end());
                if (window.size() < 2400) continue;
                heard = heard || std::abs(amplitude(window, hertz) - 8192) < 600;
                window.clear();
            }
        }
        return heard;
    }

    /// Listens until `condition` holds and nothing more lies there. False at the limit. Nowhere may
    /// `forbidden` be heard.
    template <typename Condition>
    bool listens_until(Condition&& condition, int forbidden, seconds limit) {
        const auto deadline = SteadyClock::now() + limit;
        while (SteadyClock::now() < deadline) {
            const auto packets = receive(milliseconds(20));
            if (packets.empty() && condition()) return true;
            for (const auto& samples : packets)
                EXPECT_LT(amplitude(samples, forbidden), kHeard);
        }
        return false;
    }

  private:
    std::vector<double> decode(std::span<const uint8_t> payload) {
        std::array<int16_t, 480> pcm{};
        EXPECT_EQ(::opus_decode(decoder_.get(), payload.data(),
                                static_cast<opus_int32>(payload.size()), pcm.data(), 240, 0),
                  240);
        std::vector<double> left;
        for (size_t i = 0; i < pcm.size(); i += 2)
            left.push_back(pcm[i]);
        return left;
    }

    launcher::MediaSocket socket_;
    launcher::PacketOpener opener_{kKey};
    std::unique_ptr<OpusDecoder, void (*)(OpusDecoder*)> decoder_{nullptr, ::opus_decoder_destroy};
};

class AudioStreamTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(sender_.open("127.0.0.1", listener_.port(), 0)); }
    bool start() { return stream_.start(sender_, kKey.data(), kKey.size(), 48000, 2, 128000); }

    test::PulseDaemon pulse_;
    Listener listener_;
    UdpSender sender_;
    AudioStream stream_;
};

TEST_F(AudioStreamTest, TheMicrophoneIsNotHeardWhenTheOutputGoes) {
    const test::LogCapture log;
    const auto player = pulse_.play_tone("out", kTone);
    const auto speaker = pulse_.play_tone("hidden", kOtherTone);  // what the microphone hears
    ASSERT_TRUE(start());
    ASSERT_TRUE(listener_.hears(kTone, kOtherTone, seconds(30)));
    // The server now moves the recording to the microphone and the player to the spare output.
    ASSERT_TRUE(pulse_.remove_sink("out"));
    EXPECT_TRUE(listener_.listens_until(
        [&] { return log.text().find("parec started (source=spare.monitor") != std::string::npos; },
        kOtherTone, seconds(30)));
    EXPECT_TRUE(listener_.hears(kTone, kOtherTone, seconds(30)));
    EXPECT_EQ(log.count("WARN",
                        "AudioStream: the recording was moved off the output's monitor — its sound "
                        "is dropped, opening the present output"),
              1);
}

TEST_F(AudioStreamTest, AChangeOfTheDefaultOutputIsFollowed) {
    const auto player = pulse_.play_tone("out", kTone);
    const auto other = pulse_.play_tone("spare", kOtherTone);
    ASSERT_TRUE(start());
    ASSERT_TRUE(listener_.hears(kTone, kOtherTone, seconds(30)));
    ASSERT_TRUE(pulse_.pactl("set-default-sink spare"));
    EXPECT_TRUE(test::eventually(
        [&] {
            return std::ranges::any_of(
                listener_.receive(milliseconds(100)),
                [](const auto& samples) { return amplitude(samples, kOtherTone) > kHeard; });
        },
        seconds(30)));
}

TEST(AudioStreamAlone, RefusesWhatItCannotUse) {
    const test::LogCapture log;
    AudioStream stream;
    UdpSender closed;
    EXPECT_FALSE(stream.start(closed, kKey.data(), 16, 48000, 2, 128000));
    EXPECT_EQ(
        log.count("ERROR", "AudioStream: refusing to start with a 16-byte audio key (want 32)"), 1);
    EXPECT_FALSE(stream.start(closed, kKey.data(), 32, 48000, 2, 128000) || stream.running());
}

}  // namespace
}  // namespace ox
