#include "video/encoder_options.h"

#include <array>

namespace ox {
namespace {

using Option = EncoderOption;

// A keyframe on demand must be a picture at which any decoder can start.
constexpr Option kForcedIdr{"forced-idr", "1"};

// Zero latency only keeps the pictures in order; without the delay of 0 libavcodec gives a picture
// out when all its surfaces but one are filled with later ones.
constexpr std::array kNvencOptions{kForcedIdr,           Option{"preset", "p1"},
                                   Option{"tune", "ll"}, Option{"rc", "cbr"},
                                   Option{"delay", "0"}, Option{"zerolatency", "1"}};

// These encoders have no such option as the forced IDR; they always make one of a demanded I
// picture.
constexpr std::array kVaapiOptions{kForcedIdr, Option{"rc_mode", "CBR"},
                                   Option{"async_depth", "1"}};

constexpr std::array kX264Options{kForcedIdr, Option{"preset", "ultrafast"},
                                  Option{"tune", "zerolatency"}};

// One frame thread: x265 takes more on a machine with four cores or more, and each holds back a
// picture. Closed GOPs: with open ones a forced IDR comes out as a CRA picture.
constexpr std::array kX265Options{
    kForcedIdr, Option{"preset", "ultrafast"}, Option{"tune", "zerolatency"},
    Option{"x265-params", "log-level=error:frame-threads=1:open-gop=0"}};

constexpr std::array<EncoderChoice, 3> kH264Ladder{{
    {"h264_nvenc", EncoderBackend::Nvenc, EncoderInput::Nv12, true, kNvencOptions},
    {"h264_vaapi", EncoderBackend::Vaapi, EncoderInput::VaapiSurface, false, kVaapiOptions},
    {"libx264", EncoderBackend::Software, EncoderInput::Yuv420p, true, kX264Options},
}};

constexpr std::array<EncoderChoice, 3> kHevcLadder{{
    {"hevc_nvenc", EncoderBackend::Nvenc, EncoderInput::Nv12, true, kNvencOptions},
    {"hevc_vaapi", EncoderBackend::Vaapi, EncoderInput::VaapiSurface, false, kVaapiOptions},
    {"libx265", EncoderBackend::Software, EncoderInput::Yuv420p, true, kX265Options},
}};

}  // namespace

std::span<const EncoderChoice> encoder_ladder(VideoCodec codec) {
    return codec == VideoCodec::Hevc ? kHevcLadder : kH264Ladder;
}

}  // namespace ox
