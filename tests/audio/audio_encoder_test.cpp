#include "audio/audio_encoder.h"

#include <gtest/gtest.h>
#include <opus/opus.h>

#include <cmath>
#include <memory>
#include <numbers>

#include "support/log_capture.h"

namespace ox {
namespace {

TEST(AudioEncoder, LowDelayConstantBitrateFramesThatAnyDecoderReads) {
    const test::LogCapture log;
    AudioEncoder encoder;
    ASSERT_TRUE(encoder.init(48000, 2, 128000));
    EXPECT_EQ(log.count("INFO",
                        "AudioEncoder: Opus 48000Hz 2ch 128000bps RESTRICTED_LOWDELAY, CBR, "
                        "240-sample frames (5 ms), lookahead 2.5 ms -> codec delay 7.5 ms"),
              1);
    int error = 0;
    const std::unique_ptr<OpusDecoder, void (*)(OpusDecoder*)> decoder(
        ::opus_decoder_create(48000, 2, &error), ::opus_decoder_destroy);
    std::vector<int16_t> pcm(480);
    std::vector<uint8_t> packet;
    double in_energy = 0;
    double out_energy = 0;
    for (int frame = 0; frame < 200; ++frame) {
        for (int i = 0; i < 240; ++i) {
            const double t = (frame * 240 + i) / 48000.0;
            const double sample = 8000 * std::sin(2 * std::numbers::pi * 440 * t);
            const auto at = static_cast<size_t>(2 * i);
            pcm[at] = pcm[at + 1] = static_cast<int16_t>(sample);
            in_energy += sample * sample;
        }
        ASSERT_EQ(encoder.encode(pcm.data(), 240, packet), 80);
        ASSERT_EQ(packet.size(), 80U);
        std::array<int16_t, 480> out{};
        ASSERT_EQ(::opus_decode(decoder.get(), packet.data(), 80, out.data(), 240, 0), 240);
        for (size_t i = 0; i < out.size(); i += 2)
            out_energy += out[i] * out[i];
    }
    EXPECT_NEAR(out_energy / in_energy, 1.0, 0.05);
}

TEST(AudioEncoder, RatesWithoutAFiveMillisecondFrameAreRefused) {
    const test::LogCapture log;
    AudioEncoder encoder;
    EXPECT_FALSE(encoder.init(44100, 2, 128000));
    EXPECT_EQ(log.count("ERROR", "AudioEncoder: 220 samples is not an Opus frame at 44100Hz"), 1);
    EXPECT_FALSE(encoder.init(0, 2, 128000));
    EXPECT_FALSE(encoder.init(48000, 0, 128000));
    EXPECT_FALSE(encoder.init(48000, 9, 128000));  // libopus takes one or two channels
}

}  // namespace
}  // namespace ox
