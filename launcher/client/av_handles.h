#pragma once

// Owners of libavcodec's objects.

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <array>
#include <memory>
#include <string>

#include "launcher/client/control_messages.h"

namespace ox::launcher {

struct AvDeleter {
    void operator()(AVCodecContext* p) const noexcept { avcodec_free_context(&p); }
    void operator()(AVPacket* p) const noexcept { av_packet_free(&p); }
    void operator()(AVFrame* p) const noexcept { av_frame_free(&p); }
};

template <typename T>
using AvPtr = std::unique_ptr<T, AvDeleter>;

inline AVCodecID codec_id(Codec codec) {
    return codec == Codec::Hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
}

inline std::string av_error_text(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

}  // namespace ox::launcher
