#include "video/encoder_options.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/opt.h>
}

#include <set>
#include <string>

#include "video/av_handles.h"

namespace ox {
namespace {

// Hardware encoders cannot be opened without their hardware, but their options can be set: an
// unknown name or a value that does not parse is refused.
TEST(EncoderOptions, EveryOptionIsKnownToItsEncoder) {
    std::set<std::string> refused;
    for (const VideoCodec id : {VideoCodec::H264, VideoCodec::Hevc}) {
        for (const EncoderChoice& choice : encoder_ladder(id)) {
            const AVCodec* codec = avcodec_find_encoder_by_name(choice.name);
            ASSERT_NE(codec, nullptr) << choice.name;
            const AvCodecContextPtr context(avcodec_alloc_context3(codec));
            for (const auto& [key, value] : choice.options) {
                if (av_opt_set(context->priv_data, key, value, 0) != 0) {
                    refused.insert(std::string(choice.name) + " " + key);
                }
            }
        }
    }
    // These make an IDR picture of every demanded I picture and have no option for it.
    EXPECT_EQ(refused, (std::set<std::string>{"h264_vaapi forced-idr", "hevc_vaapi forced-idr"}));
}

}  // namespace
}  // namespace ox
