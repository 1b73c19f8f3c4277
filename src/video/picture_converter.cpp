#include "video/picture_converter.h"

#include <libyuv/convert_from_argb.h>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "log/log.h"

namespace ox {
namespace {

constexpr uint32_t kMaxSourceSide = 1U << 15;

// libyuv names formats by their 32-bit word: its "ARGB" is B, G, R, A in memory.
bool convert_equal_size(const uint8_t* pixels, int stride, AVFrame& out) {
    uint8_t* const* planes = out.data;
    const int* strides = out.linesize;
    if (out.format == AV_PIX_FMT_NV12) {
        return libyuv::ARGBToNV12(pixels, stride, planes[0], strides[0], planes[1], strides[1],
                                  out.width, out.height) == 0;
    }
    return libyuv::ARGBToI420(pixels, stride, planes[0], strides[0], planes[1], strides[1],
                              planes[2], strides[2], out.width, out.height) == 0;
}

}  // namespace

bool PictureConverter::set_source_size(uint32_t source_width, uint32_t source_height) {
    if (source_width_ == source_width && source_height_ == source_height) return true;
    scaler_.reset();
    source_width_ = source_height_ = 0;
    const bool to_scale = source_width != width_ || source_height != height_;
    if (to_scale && source_width <= kMaxSourceSide && source_height <= kMaxSourceSide) {
        scaler_.reset(sws_getContext(static_cast<int>(source_width),
                                     static_cast<int>(source_height), AV_PIX_FMT_BGRA,
                                     static_cast<int>(width_), static_cast<int>(height_), format_,
                                     SWS_FAST_BILINEAR, nullptr, nullptr, nullptr));
    }
    if (to_scale && !scaler_) {
        OX_ERROR("VideoEncoder: sws_getContext %ux%u→%ux%u failed", source_width, source_height,
                 width_, height_);
        return false;
    }
    source_width_ = source_width;
    source_height_ = source_height;
    OX_INFO("VideoEncoder: swscale BGRA %ux%u → %s %ux%u", source_width, source_height,
            av_get_pix_fmt_name(format_), width_, height_);
    return true;
}

PictureConverter::Result PictureConverter::convert(const uint8_t* pixels, uint32_t source_width,
                                                   uint32_t source_height, AVFrame& out) {
    if (!set_source_size(source_width, source_height)) return Result::BadSize;
    const int stride = static_cast<int>(source_width_ * 4);
    bool converted = false;
    if (scaler_) {
        const uint8_t* const source_planes[] = {pixels};
        const int source_strides[] = {stride};
        converted = sws_scale(scaler_.get(), source_planes, source_strides, 0,
                              static_cast<int>(source_height_), out.data, out.linesize) > 0;
    } else {
        converted = convert_equal_size(pixels, stride, out);
    }
    return converted ? Result::Converted : Result::Failed;
}

}  // namespace ox
