#pragma once

#include <span>
#include <string>

#include "video/video_encoder.h"

namespace ox {

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
    VideoCodec codec;
    EncoderBackend backend;
    EncoderInput input;
    bool slice_threads;  ///< libavcodec's threads setting applies
    std::span<const EncoderOption> options;
    bool invalidates_refs = false;  ///< can be told not to refer to pictures any more
};

/// The encoders for a codec in the order in which they are tried.
std::span<const EncoderChoice> encoder_ladder(VideoCodec codec);

enum class EncoderStage {
    Settings,   ///< not in this libavcodec, or its settings are out of range
    Device,     ///< its graphics card cannot be opened
    Opening,    ///< the card or the encoder refuses
    Streaming,  ///< it failed while encoding
};

struct EncoderFailure {
    const EncoderChoice* choice = nullptr;
    EncoderStage stage = EncoderStage::Opening;
    int error = 0;           ///< libav's
    std::string node{};      ///< render node of the attempt; empty: libav's choice, or none needed
    std::string messages{};  ///< libav's warnings and errors of the attempt
    std::string errors{};    ///< its errors alone
};

}  // namespace ox
