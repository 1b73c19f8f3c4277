#include "launcher/session_outputs.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstring>
#include <fstream>

#include "base/c_handle.h"
#include "launcher/client/av_handles.h"

namespace ox::launcher {

namespace {

AvPtr<AVFrame> to_rgb(const AVFrame& picture) {
    AvPtr<AVFrame> rgb(av_frame_alloc());
    if (!rgb) return nullptr;
    rgb->format = AV_PIX_FMT_RGB24;
    rgb->width = picture.width;
    rgb->height = picture.height;
    if (av_frame_get_buffer(rgb.get(), 0) < 0) return nullptr;
    const CHandle<SwsContext, sws_freeContext> scaler(sws_getContext(
        picture.width, picture.height, static_cast<AVPixelFormat>(picture.format), rgb->width,
        rgb->height, AV_PIX_FMT_RGB24, SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT,
        nullptr, nullptr, nullptr));
    if (!scaler) return nullptr;
    // The stream's own matrix and range; a stream that does not say means BT.601, limited.
    const bool bt709 = picture.colorspace == AVCOL_SPC_BT709;
    const int full_range = picture.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
    const int* matrix = sws_getCoefficients(bt709 ? SWS_CS_ITU709 : SWS_CS_ITU601);
    sws_setColorspaceDetails(scaler.get(), matrix, full_range, matrix, 1, 0, 1 << 16, 1 << 16);
    sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, rgb->data,
              rgb->linesize);
    return rgb;
}

AvPtr<AVPacket> encode_png(const AVFrame& rgb) {
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const AvPtr<AVCodecContext> context(avcodec_alloc_context3(encoder));
    AvPtr<AVPacket> packet(av_packet_alloc());
    if (encoder == nullptr || !context || !packet) return nullptr;
    context->width = rgb.width;
    context->height = rgb.height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = {1, 1};
    if (avcodec_open2(context.get(), encoder, nullptr) < 0) return nullptr;
    if (avcodec_send_frame(context.get(), &rgb) < 0) return nullptr;
    if (avcodec_receive_packet(context.get(), packet.get()) < 0) return nullptr;
    return packet;
}

bool write_png(const AVFrame& picture, const std::string& path, std::string& error) {
    const AvPtr<AVFrame> rgb = to_rgb(picture);
    const AvPtr<AVPacket> png = rgb ? encode_png(*rgb) : nullptr;
    if (!png) {
        error = "cannot convert the picture to PNG";
        return false;
    }
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(png->data), png->size);
    file.close();
    const bool written = file.good();
    if (!written) error = "cannot write " + path + ": " + std::strerror(errno);
    return written;
}

}  // namespace

struct SessionOutputs::PictureHolder {
    AvPtr<AVFrame> picture;
};

SessionOutputs::SessionOutputs(const Options& options)
    : options_(options), last_(std::make_unique<PictureHolder>()) {}
SessionOutputs::~SessionOutputs() = default;

bool SessionOutputs::open(std::string& error) {
    return options_.save_stream.empty() ||
           recorder_.open(options_.save_stream, {.codec = options_.codec, .sound = options_.audio},
                          error);
}

void SessionOutputs::on_picture(const DecodedPicture& picture) {
    if (options_.check_stamps) stamps_.add(picture.frame_id, read_frame_stamp(picture.luma));
    if (!options_.save_frame.empty()) last_->picture.reset(av_frame_clone(&picture.image));
}

bool SessionOutputs::finish(std::string& error) {
    if (!options_.save_stream.empty() && !recorder_.finish(error)) return false;
    if (options_.save_frame.empty()) return true;
    if (last_->picture) return write_png(*last_->picture, options_.save_frame, error);
    error = "no picture to save";
    return false;
}

SessionOutputs::Results SessionOutputs::results() const {
    return {.stamps = stamps_.report(), .sound = meter_.whole(), .recorded = recorder_.counts()};
}

}  // namespace ox::launcher
