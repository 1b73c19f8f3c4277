#include "video/codec_session.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/hwcontext.h>
}

#include <array>
#include <cerrno>

#include "log/log.h"

namespace ox {
namespace {

constexpr uint32_t kMaxSide = 1U << 14;
constexpr uint32_t kMaxFps = 1000;
constexpr uint32_t kMaxKbps = 10'000'000;
constexpr uint32_t kScheduledKeyframeSeconds = 30;  // the others are on demand
constexpr uint32_t kBufferBitsPerKbit = 125;        // an eighth of a second of data
constexpr int kSurfacePool = 8;
constexpr int kBufferAlignment = 32;

bool in_range(const EncoderSettings& settings) {
    const auto within = [](uint32_t value, uint32_t greatest) {
        return value >= 1 && value <= greatest;
    };
    return within(settings.width, kMaxSide) && within(settings.height, kMaxSide) &&
           within(settings.fps, kMaxFps) && within(settings.bitrate_kbps, kMaxKbps);
}

AVPixelFormat context_format(EncoderInput input) {
    switch (input) {
        case EncoderInput::Nv12:
            return AV_PIX_FMT_NV12;
        case EncoderInput::VaapiSurface:
            return AV_PIX_FMT_VAAPI;
        case EncoderInput::Yuv420p:
            break;
    }
    return AV_PIX_FMT_YUV420P;
}

}  // namespace

std::variant<std::unique_ptr<CodecSession>, EncoderFailure> CodecSession::open(
    const EncoderChoice& choice, const EncoderSettings& settings, const std::string& node) {
    const LibavLogCapture log;
    std::unique_ptr<CodecSession> session(new CodecSession);
    const int error = session->set_up(choice, settings, node);
    if (error >= 0) return session;
    return EncoderFailure{.choice = &choice,
                          .stage = session->stage_,
                          .error = error,
                          .node = node,
                          .messages = log.messages(),
                          .errors = log.errors()};
}

int CodecSession::set_up(const EncoderChoice& choice, const EncoderSettings& settings,
                         const std::string& node) {
    const AVCodec* codec = avcodec_find_encoder_by_name(choice.name);
    if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
    if (!in_range(settings)) return AVERROR(ERANGE);
    context_.reset(avcodec_alloc_context3(codec));
    if (!context_) return AVERROR(ENOMEM);
    configure(choice, settings);
    int result = 0;
    if (choice.input == EncoderInput::VaapiSurface) {
        stage_ = EncoderStage::Device;
        result = open_vaapi_device(node);
        if (result < 0) return result;
    }
    stage_ = EncoderStage::Opening;
    if (device_) result = attach_vaapi_surfaces();
    if (result >= 0) result = open_codec(choice, codec);
    if (result >= 0) result = allocate_buffers();
    return result;
}

void CodecSession::configure(const EncoderChoice& choice, const EncoderSettings& settings) {
    const int fps = static_cast<int>(settings.fps);
    const int64_t bits_per_second = int64_t{settings.bitrate_kbps} * 1000;
    AVCodecContext& context = *context_;
    context.width = static_cast<int>(settings.width);
    context.height = static_cast<int>(settings.height);
    context.time_base = {1, fps};
    context.framerate = {fps, 1};
    context.max_b_frames = 0;
    context.gop_size = static_cast<int>(kScheduledKeyframeSeconds) * fps;
    context.flags |= AV_CODEC_FLAG_LOW_DELAY;
    context.bit_rate = bits_per_second;
    context.rc_max_rate = bits_per_second;
    context.rc_buffer_size = static_cast<int>(settings.bitrate_kbps * kBufferBitsPerKbit);
    // What the converter produces; without it decoders guess from the picture's size.
    context.color_range = AVCOL_RANGE_MPEG;
    context.colorspace = AVCOL_SPC_SMPTE170M;
    context.pix_fmt = context_format(choice.input);
    if (choice.slice_threads) {
        context.thread_count = 0;
        context.thread_type = FF_THREAD_SLICE;  // each frame thread would delay by a picture
    }
}

int CodecSession::open_vaapi_device(const std::string& node) {
    AVBufferRef* device = nullptr;
    const int result = av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI,
                                              node.empty() ? nullptr : node.c_str(), nullptr, 0);
    device_.reset(device);
    return result;
}

int CodecSession::attach_vaapi_surfaces() {
    AvBufferRefPtr frames(av_hwframe_ctx_alloc(device_.get()));
    if (!frames) return AVERROR(ENOMEM);
    // The reference's bytes are the typed context.
    auto* pool = static_cast<AVHWFramesContext*>(static_cast<void*>(frames->data));
    pool->format = AV_PIX_FMT_VAAPI;
    pool->sw_format = AV_PIX_FMT_NV12;
    pool->width = context_->width;
    pool->height = context_->height;
    pool->initial_pool_size = kSurfacePool;
    const int result = av_hwframe_ctx_init(frames.get());
    if (result >= 0) context_->hw_frames_ctx = frames.release();
    return result;
}

int CodecSession::open_codec(const EncoderChoice& choice, const AVCodec* codec) {
    AvDictionary options;
    for (const auto& [key, value] : choice.options)
        options.set(key, value);
    const int result = avcodec_open2(context_.get(), codec, options.address());
    if (result < 0) {
        std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
        av_strerror(result, text.data(), text.size());
        OX_DEBUG("VideoEncoder: avcodec_open2(%s) failed: %s", choice.name, text.data());
        return result;
    }
    const AVDictionaryEntry* unused = nullptr;
    while ((unused = options.next(unused)) != nullptr) {
        OX_DEBUG("VideoEncoder: %s has no option %s (%s)", choice.name, unused->key, unused->value);
    }
    return 0;
}

int CodecSession::allocate_buffers() {
    packet_.reset(av_packet_alloc());
    picture_.reset(av_frame_alloc());
    if (context_->hw_frames_ctx != nullptr) {
        surface_.reset(av_frame_alloc());
        if (!surface_) return AVERROR(ENOMEM);
    }
    if (!packet_ || !picture_) return AVERROR(ENOMEM);
    picture_->format = picture_format();
    picture_->width = context_->width;
    picture_->height = context_->height;
    picture_->color_range = context_->color_range;
    picture_->colorspace = context_->colorspace;
    return av_frame_get_buffer(picture_.get(), kBufferAlignment);
}

AVPixelFormat CodecSession::picture_format() const {
    return context_->hw_frames_ctx != nullptr ? AV_PIX_FMT_NV12 : context_->pix_fmt;
}

AVFrame* CodecSession::writable_picture() {
    // An encoder may still hold the previous picture's buffers.
    error_ = av_frame_make_writable(picture_.get());
    return error_ == 0 ? picture_.get() : nullptr;
}

bool CodecSession::send_picture(bool keyframe, uint64_t captured_at) {
    AVFrame* frame = picture_.get();
    if (surface_) {
        frame = surface_.get();
        av_frame_unref(frame);
        error_ = av_hwframe_get_buffer(context_->hw_frames_ctx, frame, 0);
        if (error_ >= 0) error_ = av_hwframe_transfer_data(frame, picture_.get(), 0);
        if (error_ < 0) return false;
    }
    captured_at_.at(static_cast<size_t>(next_pts_) % captured_at_.size()) = captured_at;
    frame->pts = next_pts_++;
    frame->pict_type = keyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    error_ = avcodec_send_frame(context_.get(), frame);
    if (surface_) av_frame_unref(frame);
    return error_ == 0;
}

const AVPacket* CodecSession::receive_packet() {
    av_packet_unref(packet_.get());
    const int result = avcodec_receive_packet(context_.get(), packet_.get());
    if (result == 0) return packet_.get();
    if (result != AVERROR(EAGAIN) && result != AVERROR_EOF) error_ = result;
    return nullptr;
}

uint64_t CodecSession::captured_at(const AVPacket& packet) const {
    const int64_t picture = packet.pts == AV_NOPTS_VALUE ? next_pts_ - 1 : packet.pts;
    return captured_at_.at(static_cast<size_t>(picture) % captured_at_.size());
}

}  // namespace ox
