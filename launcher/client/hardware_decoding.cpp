#include "launcher/client/hardware_decoding.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace ox::launcher {

namespace {

// Among the formats that the decoder offers for this stream the device's own. Without it the device
// cannot decode the stream: the decoder then goes on in software.
AVPixelFormat choose_format(AVCodecContext* context, const AVPixelFormat* offered) {
    const auto* device = reinterpret_cast<const AVHWDeviceContext*>(context->hw_device_ctx->data);
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(context->codec, i);
        if (config == nullptr) break;
        if (config->device_type != device->type) continue;
        for (const AVPixelFormat* format = offered; *format != AV_PIX_FMT_NONE; ++format)
            if (*format == config->pix_fmt) return *format;
    }
    return avcodec_default_get_format(context, offered);
}

// What the graphics cards of PCs offer, without the libraries that complain on standard error where
// there is no card of theirs.
bool is_wanted(const AVCodecHWConfig& config) {
    return (config.methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) != 0 &&
           (config.device_type == AV_HWDEVICE_TYPE_VAAPI ||
            config.device_type == AV_HWDEVICE_TYPE_CUDA);
}

}  // namespace

const char* use_hardware(AVCodecContext& context, const AVCodec& decoder) {
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(&decoder, i);
        if (config == nullptr) return nullptr;
        if (!is_wanted(*config) ||
            av_hwdevice_ctx_create(&context.hw_device_ctx, config->device_type, nullptr, nullptr,
                                   0) < 0)
            continue;
        context.get_format = choose_format;
        return av_hwdevice_get_type_name(config->device_type);
    }
}

bool download(const AVFrame& image, AVFrame& copy) {
    return av_hwframe_transfer_data(&copy, &image, 0) == 0 &&
           av_frame_copy_props(&copy, &image) == 0;
}

}  // namespace ox::launcher
