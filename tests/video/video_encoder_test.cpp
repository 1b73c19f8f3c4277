#include "video/video_encoder.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "launcher/client/video_decoder.h"
#include "launcher/frame_stamp.h"
#include "support/log_capture.h"
#include "video/codec_session.h"
#include "video/encoder_ladder.h"
#include "video/libav.h"
#include "video/synthetic_capture.h"

namespace {

/// A simulated graphics card: while present, x264 replaces h264_nvenc and fails as requested.
struct Card {
    bool present = false;
    int refusals = 0;     ///< this many openings fail
    bool broken = false;  ///< the next picture fails
} card;

template <typename Function>
Function* libav(Function* /*own*/, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool is_card(const AVCodecContext* context) {
    return card.present && context->pix_fmt == AV_PIX_FMT_NV12;
}

}  // namespace

const AVCodec* avcodec_find_encoder_by_name(const char* name) {
    static auto* const real = libav(avcodec_find_encoder_by_name, "avcodec_find_encoder_by_name");
    return real(card.present && std::strcmp(name, "h264_nvenc") == 0 ? "libx264" : name);
}

int avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    static auto* const real = libav(avcodec_open2, "avcodec_open2");
    if (!is_card(context)) return real(context, codec, options);
    if (card.refusals-- > 0) {
        av_log(context, AV_LOG_WARNING, "Width %d exceeds 256\n", context->width);
        av_log(context, AV_LOG_ERROR, "No capable devices found\n");
        return AVERROR_EXTERNAL;
    }
    av_dict_free(options);
    av_dict_set(options, "tune", "zerolatency", 0);
    return real(context, codec, options);
}

int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
    static auto* const real = libav(avcodec_send_frame, "avcodec_send_frame");
    if (!is_card(context) || !card.broken) return real(context, frame);
    av_log(context, AV_LOG_ERROR, "EncodePicture failed!: generic error (20)\n");
    av_log(context, AV_LOG_WARNING, "Some remark\n");
    return AVERROR_EXTERNAL;
}

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

/// A codec's decoder, and where its NAL units have which type for an IDR picture.
struct Codec {
    launcher::Codec decoder;
    int shift, mask;
    std::set<int> idr;
};
const std::map<VideoCodec, Codec> kCodecs{
    {VideoCodec::H264, {launcher::Codec::H264, 0, 0x1F, {5}}},
    {VideoCodec::Hevc, {launcher::Codec::Hevc, 1, 0x3F, {19, 20}}},
};

bool has_idr(const std::vector<uint8_t>& unit, const Codec& codec) {
    for (size_t at = 0; at + 3 < unit.size(); ++at) {
        if (unit[at] != 0 || unit[at + 1] != 0 || unit[at + 2] != 1) continue;
        if (codec.idr.contains(unit[at + 3] >> codec.shift & codec.mask)) return true;
    }
    return false;
}

struct SoftwareEncoder : testing::TestWithParam<VideoCodec> {
    void SetUp() override {
        std::string error;
        for (launcher::VideoDecoder* decoder : {&early_, &late_})
            ASSERT_TRUE(decoder->open(kCodecs.at(GetParam()).decoder, error)) << error;
        ASSERT_TRUE(capture_.init() && encoder_.init(software(GetParam())));
    }
    /// Encodes the next synthetic picture.
    EncodedFrame encode_next(uint64_t content = 0) {
        EncodedFrame out;
        EXPECT_EQ(capture_.capture_frame(picture_), 0);
        EXPECT_TRUE(encoder_.encode_bgra(picture_.pixels(), picture_.width, picture_.height,
                                         picture_.timestamp, out, content));
        EXPECT_EQ(out.timestamp, picture_.timestamp);
        EXPECT_GE(out.encoded_at, out.timestamp);
        return out;
    }

    VideoEncoder encoder_;
    SyntheticCapture capture_{kWidth, kHeight};
    CapturedFrame picture_;
    launcher::VideoDecoder early_;
    launcher::VideoDecoder late_;
};

INSTANTIATE_TEST_SUITE_P(Codecs, SoftwareEncoder, testing::ValuesIn(kVideoCodecs),
                         [](const auto& suite) {
                             return std::string(codec_info(suite.param).option_name);
                         });

// The second decoder starts with the forced keyframe, which must have all that it needs.
TEST_P(SoftwareEncoder, GivesOneDecodableUnitPerPictureAndKeyframesOnDemand) {
    constexpr uint32_t kForced = 60;
    for (uint32_t n = 0; n < 90; ++n) {
        encoder_.force_idr = n == kForced;
        const EncodedFrame unit = encode_next();
        EXPECT_FALSE(encoder_.force_idr);
        const bool key = n == 0 || n == kForced;
        EXPECT_EQ(unit.keyframe, key);
        EXPECT_EQ(has_idr(unit.data, kCodecs.at(GetParam())), key);
        EXPECT_EQ(std::pair(unit.width, unit.height), std::pair(kWidth, kHeight));
        for (launcher::VideoDecoder* decoder : {&early_, &late_}) {
            if (decoder == &late_ && n < kForced) continue;
            int pictures = 0;
            decoder->decode({.data = unit.data}, [&](const launcher::DecodedPicture& picture) {
                ++pictures;
                EXPECT_EQ(launcher::read_frame_stamp(picture.luma), n);
                EXPECT_EQ(picture.image.pict_type, key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P);
                EXPECT_EQ(picture.image.color_range, AVCOL_RANGE_MPEG);
                EXPECT_EQ(picture.image.colorspace, AVCOL_SPC_SMPTE170M);
            });
            EXPECT_EQ(pictures, 1) << "picture " << n << " is delayed";
        }
    }
}

TEST_P(SoftwareEncoder, ConvertsAPictureOnceUntilItsNumberChanges) {
    uint32_t captured = 0;
    const auto expect_shown = [&](uint64_t content, uint32_t number) {
        const EncodedFrame unit = encode_next(content);
        early_.decode({.data = unit.data}, [&](const launcher::DecodedPicture& picture) {
            EXPECT_EQ(launcher::read_frame_stamp(picture.luma), number) << captured;
        });
        ++captured;
    };
    for (const auto& [content, number] : {std::pair{7, 0U}, {7, 0}, {8, 2}, {0, 3}, {0, 4}, {8, 5}})
        expect_shown(content, number);
    ASSERT_TRUE(encoder_.reconfigure_bitrate(3000));  // nothing is left of the picture
    expect_shown(8, 6);
}

TEST_P(SoftwareEncoder, StaysWithinTheRateBuffer) {
    EncoderSettings settings = software(GetParam());
    settings.bitrate_kbps *= 4;
    ASSERT_TRUE(encoder_.init(settings));
    settings.bitrate_kbps /= 4;
    ASSERT_TRUE(encoder_.reconfigure_bitrate(settings.bitrate_kbps));
    const double per_picture = settings.bitrate_kbps * 1000.0 / settings.fps;
    const double capacity = settings.bitrate_kbps * 125.0;
    // x265 controls the rate by rows and, unlike x264, sometimes exceeds it by a few bits.
    const double slack = GetParam() == VideoCodec::Hevc ? capacity / 20 : 0;
    double buffered = capacity;
    double total = 0;
    const int pictures = GetParam() == VideoCodec::Hevc ? 80 : 300;
    std::minstd_rand random(7);
    std::vector<uint8_t> picture(size_t{kWidth} * kHeight * 4);
    for (int n = 0; n < pictures; ++n) {
        // Calm and wild stretches in turn, which the rate control cannot foresee; some keyframes.
        const uint32_t one_in = n / 50 % 2 == 0 ? 1 : 40;
        for (size_t run = 0; run < picture.size() / 64; ++run) {
            const int colour = static_cast<int>(random() / 7);
            if (random() / 7 % one_in == 0) std::memset(picture.data() + run * 64, colour, 64);
        }
        if (n % 90 == 60) encoder_.force_idr = true;
        EncodedFrame out;
        ASSERT_TRUE(encoder_.encode_bgra(picture.data(), kWidth, kHeight, 0, out));
        const double bits = static_cast<double>(out.data.size()) * 8;
        total += bits;
        buffered = std::min(buffered + per_picture, capacity) - bits;
        EXPECT_GE(buffered, -slack) << "after picture " << n;
    }
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
    EXPECT_FALSE(encoder.reconfigure_bitrate(1000));
}

TEST(VideoEncoder, ACardThatFailsLaterIsDiagnosedAndReplaced) {
    const LogCapture log;
    card = {.present = true};
    VideoEncoder encoder;
    EncodedFrame out;
    const std::vector<uint32_t> red(size_t{kWidth} * kHeight, 0x77FF0000);
    const auto* pixels = reinterpret_cast<const uint8_t*>(red.data());
    const auto encode = [&](uint32_t height = kHeight) {
        return encoder.encode_bgra(pixels, kWidth, height, 0, out);
    };
    EncoderSettings settings = software(VideoCodec::H264);
    settings.backend = EncoderBackend::Auto;
    ASSERT_TRUE(encoder.init(settings) && encode() && encode());
    ASSERT_EQ(encoder.name(), "h264_nvenc");
    EXPECT_FALSE(out.keyframe);
    EXPECT_FALSE(encode(0)) << "an empty picture";
    launcher::VideoDecoder decoder;
    std::string error;
    ASSERT_TRUE(decoder.open(launcher::Codec::H264, error)) << error;
    // BT.601, limited range, of pictures of its own size and of others; alpha may be anything.
    for (const uint32_t height : {kHeight, kHeight / 2}) {
        encoder.force_idr = true;
        ASSERT_TRUE(encode(height));
        int pictures = 0;
        decoder.decode({.data = out.data}, [&](const launcher::DecodedPicture& picture) {
            ++pictures;
            EXPECT_NEAR(*picture.image.data[0], 82, 2);
            EXPECT_NEAR(*picture.image.data[1], 90, 2);
            EXPECT_NEAR(*picture.image.data[2], 240, 2);
        });
        EXPECT_EQ(pictures, 1);
    }

    card.refusals = 1;
    EXPECT_TRUE(encoder.reconfigure_bitrate(2000) && encode());
    EXPECT_EQ(encoder.name(), "h264_nvenc");
    EXPECT_EQ(encoder.bitrate_kbps(), settings.bitrate_kbps) << "the old one is kept";
    EXPECT_TRUE(out.keyframe);
    EXPECT_EQ(log.times("[WARN ] VideoEncoder: h264_nvenc: the picture is larger or"), 1);

    card.refusals = 2;
    EXPECT_TRUE(encoder.reconfigure_bitrate(2000) && encode());
    EXPECT_NE(encoder.name(), "h264_nvenc") << "the next of the ladder";
    EXPECT_EQ(encoder.bitrate_kbps(), 2000U);
    EXPECT_TRUE(out.keyframe);

    settings.backend = EncoderBackend::Nvenc;
    ASSERT_TRUE(encoder.init(settings));
    card.broken = true;
    EXPECT_FALSE(encode());
    EXPECT_EQ(log.times("[WARN ] VideoEncoder: h264_nvenc: EncodePicture failed!: generic"), 1);

    card = {.present = true, .refusals = 2};
    EXPECT_FALSE(encoder.reconfigure_bitrate(2000)) << "no other is allowed";
    EXPECT_FALSE(encode());
    card = {};
}

// With a look-ahead, unlike in the ladder: a packet belongs to an earlier picture than the last one
// sent.
TEST(CodecSession, APacketKeepsItsPicturesCaptureTime) {
    constexpr std::array kOptions{EncoderOption{"preset", "veryfast"},
                                  EncoderOption{"rc-lookahead", "10"}};
    EncoderChoice choice = encoder_ladder(VideoCodec::H264).back();
    choice.options = kOptions;
    const auto opened = CodecSession::open(choice, software(VideoCodec::H264), {});
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<CodecSession>>(opened));
    const auto& session = std::get<std::unique_ptr<CodecSession>>(opened);
    uint64_t received = 0;
    for (uint64_t n = 0; n < 100; ++n) {
        ASSERT_NE(session->writable_picture(), nullptr);
        ASSERT_TRUE(session->send_picture(false, 1000 + n * n));
        while (const AVPacket* packet = session->receive_packet()) {
            EXPECT_LT(received, n) << "nothing was delayed";
            EXPECT_EQ(session->captured_at(*packet), 1000 + received * received);
            ++received;
        }
    }
    EXPECT_GT(received, 50U);
}

// Hardware encoders cannot be opened without their hardware, but their options can be set: an
// unknown name or a value that does not parse is refused.
TEST(EncoderOptions, EveryOptionIsKnownToItsEncoder) {
    std::set<std::string> refused;
    for (const VideoCodec id : kVideoCodecs) {
        for (const EncoderChoice& choice : encoder_ladder(id)) {
            EXPECT_EQ(choice.codec, id) << choice.name;
            const AVCodec* codec = avcodec_find_encoder_by_name(choice.name);
            ASSERT_NE(codec, nullptr) << choice.name;
            const AvCodecContextPtr context(avcodec_alloc_context3(codec));
            for (const auto& [key, value] : choice.options) {
                if (av_opt_set(context->priv_data, key, value, 0) != 0)
                    refused.insert(std::string(choice.name) + " " + key);
            }
        }
    }
    // These make an IDR picture of every I picture and have no option for it.
    EXPECT_EQ(refused, (std::set<std::string>{"h264_vaapi forced-idr", "hevc_vaapi forced-idr"}));
}

}  // namespace
}  // namespace ox
