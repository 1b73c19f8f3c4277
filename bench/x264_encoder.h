#pragma once

#include "video/encoder_ladder.h"
#include "video/libav.h"

namespace ox::bench {

/// libx264 set up as by the agent; null when it does not open.
inline AvCodecContextPtr open_x264(int width, int height, int fps, int kbps) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) return nullptr;
    AvCodecContextPtr context(avcodec_alloc_context3(codec));
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->time_base = {1, fps};
    context->framerate = {fps, 1};
    context->max_b_frames = 0;
    context->gop_size = 30 * fps;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context->bit_rate = context->rc_max_rate = int64_t{kbps} * 1000;
    context->rc_buffer_size = kbps * 125;
    context->thread_count = 0;
    context->thread_type = FF_THREAD_SLICE;
    AvDictionary options;
    for (const auto& choice : encoder_ladder(VideoCodec::H264)) {
        if (choice.backend != EncoderBackend::Software) continue;
        for (const auto& [key, value] : choice.options)
            options.set(key, value);
    }
    if (avcodec_open2(context.get(), codec, options.address()) < 0) return nullptr;
    return context;
}

}  // namespace ox::bench
