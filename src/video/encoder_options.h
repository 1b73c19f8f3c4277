#pragma once

#include <span>

#include "video/video_encoder.h"

namespace ox {

/// The memory layout an encoder takes its pictures in.
enum class EncoderInput {
    Yuv420p,
    Nv12,
    VaapiSurface,  ///< NV12 uploaded into a surface of the graphics card
};

struct EncoderOption {
    const char* key;
    const char* value;
};

/// One encoder of libavcodec and how it is set up for streaming.
struct EncoderChoice {
    const char* name;  ///< as libavcodec knows it
    EncoderBackend backend;
    EncoderInput input;
    bool slice_threads;  ///< libavcodec's threads setting applies
    std::span<const EncoderOption> options;
    bool invalidates_refs = false;  ///< can be told not to refer to pictures any more
};

/// The encoders for a codec in the order in which they are tried.
std::span<const EncoderChoice> encoder_ladder(VideoCodec codec);

}  // namespace ox
