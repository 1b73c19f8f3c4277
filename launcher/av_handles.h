#pragma once

// Private to this folder: owners of libav objects.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <memory>
#include <string>

#include "launcher/options.h"

namespace ox::launcher {

struct AvDeleter {
    void operator()(AVCodecContext* p) const noexcept { avcodec_free_context(&p); }
    void operator()(AVCodecParserContext* p) const noexcept { av_parser_close(p); }
    void operator()(AVBSFContext* p) const noexcept { av_bsf_free(&p); }
    void operator()(AVPacket* p) const noexcept { av_packet_free(&p); }
    void operator()(AVFrame* p) const noexcept { av_frame_free(&p); }
    void operator()(SwsContext* p) const noexcept { sws_freeContext(p); }
    void operator()(AVFormatContext* p) const noexcept {
        avio_closep(&p->pb);
        avformat_free_context(p);
    }
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
