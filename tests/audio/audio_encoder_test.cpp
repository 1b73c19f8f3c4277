#include "audio/audio_encoder.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace ox {
namespace {

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
