#include "video/video_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "video/av_handles.h"
#include "video/synthetic_capture.h"

namespace ox {
namespace {

using test::LogCapture;

constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 192;

EncoderSettings software(VideoCodec codec) {
    return {.codec = codec,
            .backend = EncoderBackend::Software,
            .width = kWidth,
            .height = kHeight,
            .fps = 60,
            .bitrate_kbps = 4000};
}

/// The types of an access unit's NAL units, as the codec numbers them.
std::vector<int> nal_types(const std::vector<uint8_t>& unit, VideoCodec codec) {
    std::vector<int> types;
    for (size_t i = 0; i + 3 < unit.size(); ++i) {
        if (unit[i] != 0 || unit[i + 1] != 0 || unit[i + 2] != 1) continue;
        const int header = unit[i + 3];
        types.push_back(codec == VideoCodec::Hevc ? header >> 1 & 0x3F : header & 0x1F);
    }
    return types;
}

/// A decoder that has seen nothing yet and takes one access unit at a time.
class Decoder {
  public:
    explicit Decoder(VideoCodec codec) {
        const AVCodec* decoder =
            avcodec_find_decoder(codec == VideoCodec::Hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
        context_.reset(avcodec_alloc_context3(decoder));
        context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
        context_->thread_count = 1;
        EXPECT_EQ(avcodec_open2(context_.get(), decoder, nullptr), 0);
    }

    /// The picture of this very access unit; null when the decoder does not give one out.
    AvFramePtr decode(const std::vector<uint8_t>& unit) {
        AvPacketPtr packet(av_packet_alloc());
        EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(unit.size())), 0);
        std::copy(unit.begin(), unit.end(), packet->data);
        AvFramePtr frame(av_frame_alloc());
        if (avcodec_send_packet(context_.get(), packet.get()) != 0 ||
            avcodec_receive_frame(context_.get(), frame.get()) != 0) {
            return nullptr;
        }
        return frame;
    }
    [[nodiscard]] const AVCodecContext& context() const { return *context_; }

  private:
    AvCodecContextPtr context_;
};

/// The frame number that a synthetic picture carries, read back from luma.
uint32_t read_stamp(const AVFrame& frame) {
    uint32_t number = 0;
    for (int bit = 0; bit < 32; ++bit) {
        if (frame.data[0][4 * frame.linesize[0] + bit * 8 + 4] > 128) number |= 1U << bit;
    }
    return number;
}

class SoftwareEncoder : public testing::TestWithParam<VideoCodec> {
  protected:
    void SetUp() override { ASSERT_TRUE(capture_.init() && encoder_.init(software(GetParam()))); }
    /// Encodes the next synthetic picture.
    EncodedFrame encode_next() {
        EncodedFrame out;
        EXPECT_EQ(capture_.capture_frame(picture_), 0);
        EXPECT_TRUE(encoder_.encode_bgra(picture_.pixels(), picture_.width, picture_.height,
                                         picture_.timestamp, out));
        EXPECT_FALSE(out.data.empty());
        EXPECT_EQ(out.timestamp, picture_.timestamp);
        EXPECT_GE(out.encoded_at, out.timestamp);
        return out;
    }
    /// A real random-access picture with its parameter sets before it in the same access unit.
    static void expect_complete_keyframe(const EncodedFrame& frame) {
        EXPECT_TRUE(frame.keyframe);
        auto types = nal_types(frame.data, GetParam());
        std::erase_if(types, [](int type) {
            return type == (GetParam() == VideoCodec::Hevc ? 39 : 6);  // supplemental information
        });
        // Parallel slices make several units of the picture.
        types.erase(std::unique(types.begin(), types.end()), types.end());
        using testing::AnyOf;
        using testing::ElementsAre;
        if (GetParam() == VideoCodec::Hevc) {
            EXPECT_THAT(types, ElementsAre(32, 33, 34, AnyOf(19, 20)));  // the last is the IDR
        } else {
            EXPECT_THAT(types, ElementsAre(7, 8, 5));
        }
    }

    VideoEncoder encoder_;
    SyntheticCapture capture_{kWidth, kHeight};
    CapturedFrame picture_;
};

INSTANTIATE_TEST_SUITE_P(Codecs, SoftwareEncoder,
                         testing::Values(VideoCodec::H264, VideoCodec::Hevc),
                         [](const auto& suite) {
                             return std::string(suite.param == VideoCodec::Hevc ? "Hevc" : "H264");
                         });

TEST_P(SoftwareEncoder, GivesOneDecodableUnitPerPictureAndKeyframesOnDemand) {
    constexpr uint32_t kForced = 60;
    Decoder early(GetParam());
    Decoder late(GetParam());  // comes in with the forced keyframe
    for (uint32_t n = 0; n < 90; ++n) {
        encoder_.force_idr = n == kForced;
        const EncodedFrame unit = encode_next();
        EXPECT_FALSE(encoder_.force_idr);
        const bool key = n == 0 || n == kForced;
        EXPECT_EQ(unit.keyframe, key);
        EXPECT_EQ(unit.width, kWidth);
        EXPECT_EQ(unit.height, kHeight);
        if (key) expect_complete_keyframe(unit);
        for (Decoder* decoder : {&early, &late}) {
            if (decoder == &late && n < kForced) continue;
            const AvFramePtr decoded = decoder->decode(unit.data);
            ASSERT_NE(decoded, nullptr) << "picture " << n << " is held back";
            EXPECT_EQ(read_stamp(*decoded), n);
            EXPECT_EQ(decoded->pict_type, key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P);
            EXPECT_EQ(decoded->color_range, AVCOL_RANGE_MPEG);
            EXPECT_EQ(decoded->colorspace, AVCOL_SPC_SMPTE170M);
        }
    }
    EXPECT_EQ(early.context().has_b_frames, 0);
}

/// Gives random colours to one in `one_in` of the picture's blocks of 8 x 8 pixels.
void change_blocks(std::vector<uint8_t>& picture, uint32_t one_in, std::minstd_rand& random) {
    for (uint32_t block = 0; block < kWidth * kHeight / 64; ++block) {
        if (random() / 7 % one_in != 0) continue;
        const uint32_t left = block % (kWidth / 8) * 8;
        const uint32_t top = block / (kWidth / 8) * 8;
        const auto colour = static_cast<uint32_t>(random());
        for (uint32_t i = 0; i < 64; ++i) {
            const size_t pixel = size_t{top + i / 8} * kWidth + left + i % 8;
            std::memcpy(picture.data() + pixel * 4, &colour, 4);
        }
    }
}

TEST_P(SoftwareEncoder, StaysWithinTheRateBuffer) {
    const EncoderSettings settings = software(GetParam());
    const double per_picture = settings.bitrate_kbps * 1000.0 / settings.fps;
    const double capacity = settings.bitrate_kbps * 125.0;
    // x265 steers by rows and, unlike x264, now and then ends a few bits too high.
    const double slack = GetParam() == VideoCodec::Hevc ? capacity / 20 : 0;
    double buffered = capacity;
    double lowest = capacity;
    double total = 0;
    const int pictures = GetParam() == VideoCodec::Hevc ? 80 : 300;
    std::minstd_rand random(7);
    std::vector<uint8_t> picture(size_t{kWidth} * kHeight * 4);
    for (int n = 0; n < pictures; ++n) {
        // Calm and wild stretches in turn, so that the rate control is surprised; some keyframes.
        change_blocks(picture, n / 50 % 2 == 0 ? 1 : 40, random);
        if (n % 90 == 60) encoder_.force_idr = true;
        EncodedFrame out;
        ASSERT_TRUE(encoder_.encode_bgra(picture.data(), kWidth, kHeight, 0, out));
        const double bits = static_cast<double>(out.data.size()) * 8;
        total += bits;
        buffered = std::min(buffered + per_picture, capacity) - bits;
        lowest = std::min(lowest, buffered);
    }
    EXPECT_GE(lowest, -slack);
    EXPECT_LT(total / pictures, per_picture * 1.1);
    EXPECT_GT(total / pictures, per_picture * 0.4);
}

TEST(VideoEncoder, WalksTheLadder) {
    const LogCapture log;
    VideoEncoder encoder;
    EncoderSettings settings = software(VideoCodec::Hevc);
    settings.backend = EncoderBackend::Vaapi;
    if (encoder.init(settings)) GTEST_SKIP() << "this machine has the hardware encoder";
    EXPECT_EQ(log.count("WARN", "VideoEncoder: hevc_vaapi unavailable — trying next backend"), 1);
    EXPECT_EQ(log.count("DEBUG", "VideoEncoder: no VAAPI device (/dev/dri missing?)"), 1);
    EXPECT_EQ(log.times("[WARN ] VideoEncoder: hevc_vaapi: "), 1) << "the cause, once";
    EXPECT_EQ(log.count("ERROR", "VideoEncoder: no encoder available for codec 1"), 1);
    EXPECT_EQ(encoder.name(), "");
}

TEST(VideoEncoder, RefusesWhatCannotBeEncoded) {
    VideoEncoder encoder;
    EncodedFrame out;
    const std::vector<uint8_t> pixels(size_t{kWidth} * kHeight * 4);
    EXPECT_FALSE(encoder.encode_bgra(pixels.data(), kWidth, kHeight, 0, out));
    EXPECT_FALSE(encoder.reconfigure_bitrate(1000));

    for (uint32_t EncoderSettings::*field :
         {&EncoderSettings::width, &EncoderSettings::height, &EncoderSettings::fps,
          &EncoderSettings::bitrate_kbps}) {
        for (const uint32_t value : {0U, 4'000'000'000U}) {
            EncoderSettings settings = software(VideoCodec::H264);
            settings.*field = value;
            EXPECT_FALSE(encoder.init(settings));
        }
    }
    ASSERT_TRUE(encoder.init(software(VideoCodec::H264)));
    EXPECT_FALSE(encoder.encode_bgra(nullptr, kWidth, kHeight, 0, out));
    EXPECT_FALSE(encoder.encode_bgra(pixels.data(), kWidth, 0, 0, out));
    EXPECT_TRUE(encoder.encode_bgra(pixels.data(), kWidth, kHeight, 0, out));
}

}  // namespace
}  // namespace ox
