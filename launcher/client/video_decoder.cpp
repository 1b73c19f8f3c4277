#include "launcher/client/video_decoder.h"

#include <array>

#include "launcher/client/av_handles.h"
#include "launcher/client/hardware_decoding.h"

namespace ox::launcher {

namespace {

// What the decoder does not pass through: looked up by the picture's pts, which counts units.
struct UnitInfo {
    uint32_t frame_id = 0;
    uint64_t timestamp = 0;
};
constexpr size_t kUnitInfos = 64;  // more than any decoder holds back

LumaPlane luma_of(const AVFrame& frame) {
    const bool planar_8_bit = frame.format == AV_PIX_FMT_YUV420P ||
                              frame.format == AV_PIX_FMT_YUVJ420P ||
                              frame.format == AV_PIX_FMT_NV12;
    if (!planar_8_bit || frame.linesize[0] <= 0 || frame.width <= 0 || frame.height <= 0) return {};
    const auto stride = static_cast<size_t>(frame.linesize[0]);
    const auto height = static_cast<uint32_t>(frame.height);
    return {.bytes = {frame.data[0], stride * height},
            .stride = stride,
            .width = static_cast<uint32_t>(frame.width),
            .height = height};
}

}  // namespace

void silence_libav() {
    av_log_set_level(AV_LOG_QUIET);
}

struct VideoDecoder::Impl {
    AvPtr<AVCodecContext> context;
    AvPtr<AVPacket> packet{av_packet_alloc()};
    AvPtr<AVFrame> picture{av_frame_alloc()};
    AvPtr<AVFrame> downloaded{av_frame_alloc()};
    Codec codec = Codec::H264;
    const char* device = nullptr;  ///< of the hardware that may decode
    const char* kind = "software";
    std::array<UnitInfo, kUnitInfos> infos{};
    int64_t units = 0;
};

VideoDecoder::VideoDecoder() = default;
VideoDecoder::~VideoDecoder() = default;

bool VideoDecoder::open(Codec codec, std::string& error, Hardware hardware) {
    const AVCodec* decoder = avcodec_find_decoder(codec_id(codec));
    auto impl = std::make_unique<Impl>();
    if (decoder != nullptr) impl->context.reset(avcodec_alloc_context3(decoder));
    if (!impl->context || !impl->packet || !impl->picture || !impl->downloaded) {
        error = "no decoder for this codec in libavcodec";
        return false;
    }
    AVCodecContext& context = *impl->context;
    context.flags |= AV_CODEC_FLAG_LOW_DELAY;
    // Frame threads would delay pictures; slice threads do not.
    context.thread_type = FF_THREAD_SLICE;
    context.thread_count = 2;
    impl->codec = codec;
    if (hardware == Hardware::WhereThere) impl->device = use_hardware(context, *decoder);
    if (const int result = avcodec_open2(&context, decoder, nullptr); result < 0) {
        if (impl->device != nullptr) return open(codec, error);
        error = "cannot open the decoder: " + av_error_text(result);
        return false;
    }
    impl_ = std::move(impl);
    return true;
}

const char* VideoDecoder::kind() const {
    return impl_ ? impl_->kind : "";
}

bool VideoDecoder::decode(const AssembledFrame& frame, const Sink& sink) {
    if (!impl_ || frame.data.size() > INT32_MAX) return false;
    Impl& impl = *impl_;
    // libavcodec copies a packet that is not reference-counted, so the cast is safe.
    impl.packet->data = const_cast<uint8_t*>(frame.data.data());
    impl.packet->size = static_cast<int>(frame.data.size());
    impl.packet->pts = impl.units++;
    impl.infos[static_cast<size_t>(impl.packet->pts) % kUnitInfos] = {frame.frame_id,
                                                                      frame.timestamp};
    bool decoded = avcodec_send_packet(impl.context.get(), impl.packet.get()) >= 0;
    av_packet_unref(impl.packet.get());

    while (avcodec_receive_frame(impl.context.get(), impl.picture.get()) == 0) {
        if (impl.picture->hw_frames_ctx == nullptr) {
            impl.kind = "software";
            pass_on(*impl.picture, sink);
        } else if (download(*impl.picture, *impl.downloaded)) {
            impl.kind = impl.device;
            pass_on(*impl.downloaded, sink);
        } else {
            decoded = false;
        }
        av_frame_unref(impl.picture.get());
        av_frame_unref(impl.downloaded.get());
    }
    if (std::string error; !decoded && impl.device != nullptr) open(impl.codec, error);
    return decoded;
}

void VideoDecoder::pass_on(const AVFrame& image, const Sink& sink) {
    const auto unit = static_cast<size_t>(image.pts < 0 ? 0 : image.pts);
    const UnitInfo& info = impl_->infos[unit % kUnitInfos];
    sink({.image = image,
          .frame_id = info.frame_id,
          .timestamp = info.timestamp,
          .width = static_cast<uint32_t>(image.width),
          .height = static_cast<uint32_t>(image.height),
          .luma = luma_of(image)});
}

}  // namespace ox::launcher
