#include "app/session/stream_settings.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace ox {
namespace {

TEST(StreamSettings, WhatTheLauncherAsksForIsBroughtIntoRange) {
    struct Case {
        TcpControlServer::RequestedStream asked;
        EncoderSettings got;
    };
    const auto with = [](VideoCodec codec, uint32_t w, uint32_t h, uint32_t fps, uint32_t kbps) {
        return EncoderSettings{
            .codec = codec, .width = w, .height = h, .fps = fps, .bitrate_kbps = kbps};
    };
    const Case cases[] = {
        {{.codec = 0, .width = 1920, .height = 1080, .fps = 60, .bitrate = 15000},
         with(VideoCodec::H264, 1920, 1080, 60, 15000)},
        {{.codec = 1, .width = 8000, .height = 8000, .fps = 500, .bitrate = 50},
         with(VideoCodec::Hevc, 4096, 4096, 120, 200)},
        {{.codec = 2, .width = 1367, .height = 769, .fps = 0, .bitrate = 999'999},
         with(VideoCodec::H264, 1366, 768, 1, 200'000)},
        {{.codec = -7, .width = INT_MIN, .height = 17, .fps = -1, .bitrate = INT_MIN},
         with(VideoCodec::H264, 16, 16, 1, 200)},
        {{.codec = INT_MAX, .width = INT_MAX, .height = 0, .fps = INT_MAX, .bitrate = INT_MAX},
         with(VideoCodec::H264, 4096, 16, 120, 200'000)},
    };
    for (const Case& c : cases) {
        const EncoderSettings got = encoder_settings(c.asked, EncoderBackend::Software);
        EXPECT_EQ(got.codec, c.got.codec);
        EXPECT_EQ((std::vector{got.width, got.height, got.fps, got.bitrate_kbps}),
                  (std::vector{c.got.width, c.got.height, c.got.fps, c.got.bitrate_kbps}));
        // Half as much again as the bitrate, without overflow at the top.
        EXPECT_EQ(uint64_t{pacing_rate_bps(got.bitrate_kbps)}, uint64_t{got.bitrate_kbps} * 1500);
    }
}

}  // namespace
}  // namespace ox
