#pragma once

#include <cstdint>
#include <vector>

namespace ox {

struct EncodedFrame {
    std::vector<uint8_t> data;  ///< one access unit, Annex-B; empty while the encoder buffers
    uint32_t frame_id = 0;      ///< running number, set by the session and not by the encoder
    uint64_t timestamp = 0;     ///< capture time as handed to the encoder, steady-clock us
    uint64_t encoded_at = 0;    ///< when the encoder returned it, steady-clock us
    bool keyframe = false;      ///< the picture can start a decoder
    uint32_t width = 0;         ///< encoded size in pixels
    uint32_t height = 0;
};

}  // namespace ox
