#include "video/encoder_ladder.h"

#include <array>

namespace ox {
namespace {

using Option = EncoderOption;

// A keyframe on demand must be one at which any decoder can start.
constexpr Option kForcedIdr{"forced-idr", "1"};

// "zerolatency" only keeps the pictures in order; without "delay" 0 libavcodec returns a picture
// only when later ones fill all its surfaces but one.
constexpr std::array kNvencOptions{kForcedIdr,           Option{"preset", "p1"},
                                   Option{"tune", "ll"}, Option{"rc", "cbr"},
                                   Option{"delay", "0"}, Option{"zerolatency", "1"}};

// These encoders lack the option "forced-idr": they make an IDR picture of every I picture.
constexpr std::array kVaapiOptions{kForcedIdr, Option{"rc_mode", "CBR"},
                                   Option{"async_depth", "1"}};

constexpr std::array kX264Options{kForcedIdr, Option{"preset", "ultrafast"},
                                  Option{"tune", "zerolatency"}};

// One frame thread: x265 uses more on four cores or more, and each delays by a picture. Closed
// GOPs: with open ones a forced IDR comes out as a CRA picture.
constexpr std::array kX265Options{
    kForcedIdr, Option{"preset", "ultrafast"}, Option{"tune", "zerolatency"},
    Option{"x265-params", "log-level=error:frame-threads=1:open-gop=0"}};

using enum EncoderBackend;
using enum EncoderInput;

constexpr std::array<EncoderChoice, 3> kH264Ladder{{
    {"h264_nvenc", VideoCodec::H264, Nvenc, Nv12, true, kNvencOptions},
    {"h264_vaapi", VideoCodec::H264, Vaapi, VaapiSurface, false, kVaapiOptions},
    {"libx264", VideoCodec::H264, Software, Yuv420p, true, kX264Options},
}};

constexpr std::array<EncoderChoice, 3> kHevcLadder{{
    {"hevc_nvenc", VideoCodec::Hevc, Nvenc, Nv12, true, kNvencOptions},
    {"hevc_vaapi", VideoCodec::Hevc, Vaapi, VaapiSurface, false, kVaapiOptions},
    {"libx265", VideoCodec::Hevc, Software, Yuv420p, true, kX265Options},
}};

}  // namespace

std::span<const EncoderChoice> encoder_ladder(VideoCodec codec) {
    switch (codec) {
        case VideoCodec::H264:
            return kH264Ladder;
        case VideoCodec::Hevc:
            return kHevcLadder;
    }
    return {};
}

}  // namespace ox
