#pragma once

#include <cstdint>
#include <string>

#include "video/encoder_options.h"

namespace ox {

/// How far an encoder came before it failed.
enum class EncoderStage {
    Settings,   ///< not in this libavcodec, or asked for what no encoder can do
    Device,     ///< its graphics card cannot be had
    Opening,    ///< the card or the encoder refuses
    Streaming,  ///< it broke while it encoded
};

/// One encoder's failure as libav tells it.
struct EncoderFailure {
    const EncoderChoice* choice = nullptr;
    EncoderStage stage = EncoderStage::Opening;
    int error = 0;         ///< libav's
    std::string node{};    ///< render node of the attempt; empty: libav's choice, or none needed
    std::string said{};    ///< libav's warnings and errors of the attempt, as it wrote them
    std::string errors{};  ///< its errors alone
};

}  // namespace ox
