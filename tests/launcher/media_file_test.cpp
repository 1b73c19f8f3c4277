// Decoder, stamp reader, recorder and picture writer on real encoded pictures.

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "launcher/av_handles.h"
#include "launcher/frame_stamp.h"
#include "launcher/picture_writer.h"
#include "launcher/stamped_encoder.h"
#include "launcher/stream_recorder.h"
#include "launcher/video_decoder.h"
#include "support/temp_dir.h"

namespace ox::launcher {
namespace {

using test::StampedEncoder;

AssembledFrame frame_of(const EncodedFrame& encoded) {
    return {.data = encoded.data,
            .frame_id = encoded.frame_id,
            .keyframe = encoded.keyframe,
            .timestamp = encoded.timestamp,
            .first_seen = encoded.timestamp + 5000,
            .completed = encoded.timestamp + 6000};
}

class MediaFile : public testing::TestWithParam<Codec> {};
INSTANTIATE_TEST_SUITE_P(Codecs, MediaFile, testing::Values(Codec::H264, Codec::Hevc),
                         [](const auto& codec) {
                             return codec.param == Codec::H264 ? "H264" : "Hevc";
                         });

TEST_P(MediaFile, EachUnitGivesItsPictureAtOnce) {
    StampedEncoder encoder(GetParam());
    VideoDecoder decoder;
    std::string error;
    ASSERT_TRUE(decoder.open(GetParam(), error)) << error;
    for (uint32_t n = 0; n < 20; ++n) {
        const uint32_t stamp = 0xA5000000U + n * 77;
        int pictures = 0;
        EXPECT_TRUE(decoder.decode(frame_of(encoder.encode(stamp, 100 + n, 5000 + n, n % 8 == 0)),
                                   [&](const DecodedPicture& picture) {
                                       ++pictures;
                                       EXPECT_EQ(read_frame_stamp(picture.luma), stamp);
                                       EXPECT_EQ(picture.frame_id, 100 + n);
                                       EXPECT_EQ(picture.timestamp, 5000 + n);
                                       const uint8_t band =
                                           picture.luma.bytes[32 * picture.luma.stride + 160];
                                       EXPECT_NEAR(band, StampedEncoder::band_level(stamp), 6);
                                   }));
        EXPECT_EQ(pictures, 1) << "unit " << n;
    }
    EXPECT_FALSE(decoder.decode({.data = {1, 2, 3, 4}}, [](const auto&) { FAIL(); }));
    int pictures = 0;
    decoder.decode(frame_of(encoder.encode(1, 200, 1, true)), [&](const auto&) { ++pictures; });
    EXPECT_EQ(pictures, 1) << "a refused unit must not end decoding";
}

// What libavformat finds in a recording.
struct Recording {
    std::vector<int64_t> sound_ms;
    AVCodecID sound_codec = AV_CODEC_ID_NONE;
    std::vector<int64_t> times_ms;
    int keyframes = 0;
    int pictures = 0;
    int width = 0;
    AVCodecID codec = AV_CODEC_ID_NONE;
};

Recording read_recording(const std::string& path) {
    Recording found;
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return found;
    avformat_find_stream_info(input, nullptr);
    const AVStream& stream = *input->streams[0];
    found.width = stream.codecpar->width;
    found.codec = stream.codecpar->codec_id;
    const AvPtr<AVCodecContext> decoder(avcodec_alloc_context3(avcodec_find_decoder(found.codec)));
    avcodec_parameters_to_context(decoder.get(), stream.codecpar);
    avcodec_open2(decoder.get(), nullptr, nullptr);
    const AvPtr<AVPacket> packet(av_packet_alloc());
    const AvPtr<AVFrame> picture(av_frame_alloc());
    for (bool more = true; more;) {
        more = av_read_frame(input, packet.get()) >= 0;
        if (more && packet->stream_index == 1) {
            const AVStream& sound = *input->streams[1];
            found.sound_codec = sound.codecpar->codec_id;
            found.sound_ms.push_back(av_rescale_q(packet->pts, sound.time_base, {1, 1000}));
            av_packet_unref(packet.get());
            continue;
        }
        if (more) {
            found.times_ms.push_back(av_rescale_q(packet->pts, stream.time_base, {1, 1000}));
            if ((packet->flags & AV_PKT_FLAG_KEY) != 0) ++found.keyframes;
        }
        avcodec_send_packet(decoder.get(), more ? packet.get() : nullptr);
        while (avcodec_receive_frame(decoder.get(), picture.get()) >= 0)
            ++found.pictures;
        av_packet_unref(packet.get());
    }
    avformat_close_input(&input);
    return found;
}

TEST_P(MediaFile, RecordingOpensWithAllPicturesAndTheirTimes) {
    const test::TempDir folder;
    const std::string path = folder.file("stream.mkv");
    StampedEncoder encoder(GetParam());
    StreamRecorder recorder;
    std::string error;
    ASSERT_TRUE(recorder.open(path, {.codec = GetParam()}, error)) << error;
    // An uneven rate, a frame before the first keyframe, and one that lost its capture time.
    const std::vector<int64_t> times{0, 16, 50, 67, 1067, 1083};
    const EncodedFrame key = encoder.encode(0, 0, 1, true);
    EXPECT_TRUE(recorder.write(frame_of(encoder.encode(1, 1, 1, false))));
    for (size_t i = 0; i < times.size(); ++i) {
        const uint64_t captured = 7'000'000 + static_cast<uint64_t>(times[i]) * 1000;
        AssembledFrame frame = frame_of(encoder.encode(2, 2, captured, i == 0 || i == 4));
        if (i == 3) frame.timestamp = 0;
        EXPECT_TRUE(recorder.write(frame)) << recorder.error();
    }
    ASSERT_TRUE(recorder.finish()) << recorder.error();
    EXPECT_EQ(recorder.frames(), times.size());

    const Recording found = read_recording(path);
    EXPECT_EQ(found.codec, codec_id(GetParam()));
    EXPECT_EQ(found.width, StampedEncoder::kWidth);
    EXPECT_EQ(found.times_ms, times);
    EXPECT_EQ(found.keyframes, 2);
    EXPECT_EQ(found.pictures, static_cast<int>(times.size()));
}

TEST(MediaFileSound, LiesBesideThePicturesInTime) {
    const test::TempDir folder;
    const std::string path = folder.file("stream.mkv");
    StampedEncoder encoder(Codec::H264);
    StreamRecorder recorder;
    std::string error;
    ASSERT_TRUE(recorder.open(path, {.codec = Codec::H264, .sound = true}, error)) << error;
    constexpr uint64_t kStart = 7'000'000;
    // The times of sending waver; one frame is rebuilt and has none, two are lost, and once the
    // recording has paused for 300 ms.
    const auto sound = [&](uint32_t sequence, int64_t ms) {
        const uint64_t sent = ms < 0 ? 0 : kStart + static_cast<uint64_t>(ms) * 1000;
        recorder.write_audio({.opus = std::vector<uint8_t>{0xFC, 0xFF, 0xFE},
                              .sequence = sequence,
                              .timestamp = sent,
                              .repaired = sent == 0});
    };
    sound(10, 0);  // before the first picture
    for (uint32_t n = 0; n < 30; ++n)
        recorder.write(
            frame_of(encoder.encode(n, n, kStart + 20'000 + uint64_t{n} * 16'000, n == 0)));
    sound(15, 26);
    sound(16, -1);
    sound(17, 37);
    sound(20, 50);
    sound(21, 355);
    ASSERT_TRUE(recorder.finish()) << recorder.error();
    EXPECT_EQ(recorder.audio_frames(), 5U);
    const Recording found = read_recording(path);
    EXPECT_EQ(found.pictures, 30);
    EXPECT_EQ(found.sound_codec, AV_CODEC_ID_OPUS);
    // A decoder's output lags behind by the 2.5 ms that the encoder looked ahead.
    EXPECT_EQ(found.sound_ms, (std::vector<int64_t>{2, 7, 12, 27, 332}));
}

TEST(MediaFileErrors, AreTold) {
    const test::TempDir folder;
    std::string error;
    StreamRecorder nowhere;
    EXPECT_FALSE(nowhere.open(folder.file("missing/stream.mkv"), {}, error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;

    StreamRecorder bare;
    ASSERT_TRUE(bare.open(folder.file("bare.mkv"), {}, error)) << error;
    EXPECT_FALSE(bare.write({.data = {0, 0, 0, 1, 0x65, 9, 9}, .keyframe = true}));
    EXPECT_EQ(bare.error(), "cannot record: the keyframe has no parameter sets");
}

TEST(PictureWriter, WritesThePixelsThatWereDecoded) {
    const test::TempDir folder;
    const std::string path = folder.file("frame.png");
    StampedEncoder encoder(Codec::H264);
    VideoDecoder decoder;
    std::string error;
    ASSERT_TRUE(decoder.open(Codec::H264, error)) << error;
    decoder.decode(frame_of(encoder.encode(2, 0, 1, true)), [&](const DecodedPicture& picture) {
        EXPECT_TRUE(write_png(picture.image, path, error)) << error;
        EXPECT_FALSE(write_png(picture.image, folder.file("missing/frame.png"), error));
    });

    AVFormatContext* input = nullptr;
    ASSERT_GE(avformat_open_input(&input, path.c_str(), nullptr, nullptr), 0);
    const AvPtr<AVPacket> packet(av_packet_alloc());
    const AvPtr<AVFrame> picture(av_frame_alloc());
    av_read_frame(input, packet.get());
    const AvPtr<AVCodecContext> png(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_PNG)));
    avcodec_open2(png.get(), nullptr, nullptr);
    avcodec_send_packet(png.get(), packet.get());
    ASSERT_GE(avcodec_receive_frame(png.get(), picture.get()), 0);
    ASSERT_EQ(picture->format, AV_PIX_FMT_RGB24);
    ASSERT_EQ(picture->width, StampedEncoder::kWidth);
    const auto pixel = [&](int x, int y, int channel) {
        return int{picture->data[0][y * picture->linesize[0] + x * 3 + channel]};
    };
    for (const int channel : {0, 1, 2}) {
        EXPECT_LT(pixel(4, 4, channel), 16);    // bit 0 of 2: black, from level 16
        EXPECT_GT(pixel(12, 4, channel), 240);  // bit 1: white, from level 235
        const int band = (StampedEncoder::band_level(2) - 16) * 255 / 219;
        EXPECT_NEAR(pixel(160, 40, channel), band, 8);
    }
    avformat_close_input(&input);
}

TEST(FrameStamp, DoubtfulPicturesGiveNoNumber) {
    std::vector<uint8_t> bytes(256 * 8, 16);
    const LumaPlane plane{.bytes = bytes, .stride = 256, .width = 256, .height = 8};
    EXPECT_EQ(read_frame_stamp(plane), 0U);
    for (size_t y = 0; y < 8; ++y)
        std::fill_n(bytes.begin() + static_cast<long>(y) * 256 + 248, 8, 235);
    EXPECT_EQ(read_frame_stamp(plane), 0x80000000U);
    for (size_t y = 0; y < 8; ++y)
        std::fill_n(bytes.begin() + static_cast<long>(y) * 256 + 80, 8, 125);
    EXPECT_FALSE(read_frame_stamp(plane)) << "grey is neither";
    EXPECT_FALSE(read_frame_stamp({.bytes = bytes, .stride = 256, .width = 255, .height = 8}));
    EXPECT_FALSE(read_frame_stamp({.bytes = bytes, .stride = 256, .width = 256, .height = 7}));
    EXPECT_FALSE(read_frame_stamp(
        {.bytes = std::span(bytes).first(900), .stride = 256, .width = 256, .height = 8}));
}

TEST(FrameStamp, CheckerFindsWrongPictures) {
    StampChecker checker;
    // Frame numbers 3, 4, 7 were shown with the pictures they should; 8 repeats a picture, 9 shows
    // one from nowhere.
    checker.add(3, 0xFFFFFFFF);
    checker.add(4, 0);
    checker.add(7, 3);
    checker.add(8, 3);
    checker.add(9, 77);
    checker.add(10, std::nullopt);
    const auto& report = checker.report();
    EXPECT_EQ(report.read, 5U);
    EXPECT_EQ(report.first, 0xFFFFFFFF);
    EXPECT_EQ(report.last, 77U);
    EXPECT_EQ(report.out_of_order, 1U);
    EXPECT_EQ(report.invented, 2U);
    EXPECT_EQ(report.unreadable, 1U);
}

}  // namespace
}  // namespace ox::launcher
