#include "launcher/stamped_encoder.h"

#include <cstring>
#include <stdexcept>

#include "launcher/av_handles.h"
#include "launcher/video_decoder.h"

namespace ox::test {

using launcher::AvPtr;
using launcher::Codec;

struct StampedEncoder::Impl {
    AvPtr<AVCodecContext> context;
    AvPtr<AVFrame> picture{av_frame_alloc()};
    AvPtr<AVPacket> packet{av_packet_alloc()};
    int64_t pts = 0;
};

namespace {

void paint(AVFrame& picture, uint32_t stamp) {
    for (int y = 0; y < picture.height; ++y) {
        uint8_t* row = picture.data[0] + y * picture.linesize[0];
        std::memset(row, StampedEncoder::band_level(stamp), static_cast<size_t>(picture.width));
        for (uint32_t bit = 0; y < 8 && bit < 32; ++bit)
            std::memset(row + bit * 8, (stamp >> bit & 1) != 0 ? 235 : 16, 8);
    }
    for (const int plane : {1, 2})
        std::memset(picture.data[plane], 128,
                    static_cast<size_t>(picture.linesize[plane] * picture.height / 2));
}

}  // namespace

StampedEncoder::StampedEncoder(Codec codec) : impl_(std::make_unique<Impl>()) {
    launcher::silence_libav();
    const bool hevc = codec == Codec::Hevc;
    const AVCodec* encoder = avcodec_find_encoder_by_name(hevc ? "libx265" : "libx264");
    impl_->context.reset(avcodec_alloc_context3(encoder));
    AVCodecContext& context = *impl_->context;
    context.width = kWidth;
    context.height = kHeight;
    context.pix_fmt = AV_PIX_FMT_YUV420P;
    context.time_base = {1, 60};
    context.gop_size = 100000;
    context.max_b_frames = 0;
    context.bit_rate = 2'000'000;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "preset", "ultrafast", 0);
    av_dict_set(&options, "tune", "zerolatency", 0);
    av_dict_set(&options, "forced-idr", "1", 0);
    av_dict_set(&options, "x265-params", "repeat-headers=1:log-level=none:pools=none", 0);
    const int opened = encoder == nullptr ? -1 : avcodec_open2(&context, encoder, &options);
    av_dict_free(&options);
    impl_->picture->format = context.pix_fmt;
    impl_->picture->width = kWidth;
    impl_->picture->height = kHeight;
    if (opened < 0 || av_frame_get_buffer(impl_->picture.get(), 0) < 0)
        throw std::runtime_error("no software encoder for the test stream");
}

StampedEncoder::~StampedEncoder() = default;

EncodedFrame StampedEncoder::encode(uint32_t stamp, uint32_t frame_id, uint64_t timestamp,
                                    bool keyframe) {
    AVFrame& picture = *impl_->picture;
    av_frame_make_writable(&picture);
    paint(picture, stamp);
    picture.pts = impl_->pts++;
    picture.pict_type = keyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(impl_->context.get(), &picture) < 0 ||
        avcodec_receive_packet(impl_->context.get(), impl_->packet.get()) < 0)
        throw std::runtime_error("the test stream's encoder holds pictures back");
    EncodedFrame frame;
    frame.frame_id = frame_id;
    frame.timestamp = timestamp;
    frame.data.assign(impl_->packet->data, impl_->packet->data + impl_->packet->size);
    frame.keyframe = (impl_->packet->flags & AV_PKT_FLAG_KEY) != 0;
    av_packet_unref(impl_->packet.get());
    return frame;
}

}  // namespace ox::test
