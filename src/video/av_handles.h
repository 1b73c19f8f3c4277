#pragma once

// Private to this folder: owners for libav's objects.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace ox {

struct AvCodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct AvFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct AvPacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct AvBufferRefDeleter {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
struct SwsContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using AvCodecContextPtr = std::unique_ptr<AVCodecContext, AvCodecContextDeleter>;
using AvFramePtr = std::unique_ptr<AVFrame, AvFrameDeleter>;
using AvPacketPtr = std::unique_ptr<AVPacket, AvPacketDeleter>;
using AvBufferRefPtr = std::unique_ptr<AVBufferRef, AvBufferRefDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;

/// An options dictionary as libav's calls take and change it.
class AvDictionary {
  public:
    AvDictionary() = default;
    ~AvDictionary() { av_dict_free(&dictionary_); }
    AvDictionary(const AvDictionary&) = delete;
    AvDictionary& operator=(const AvDictionary&) = delete;

    void set(const char* key, const char* value) { av_dict_set(&dictionary_, key, value, 0); }
    [[nodiscard]] AVDictionary** address() { return &dictionary_; }
    /// The entry after `previous`; the first for null, null at the end.
    [[nodiscard]] const AVDictionaryEntry* next(const AVDictionaryEntry* previous) const {
        return av_dict_get(dictionary_, "", previous, AV_DICT_IGNORE_SUFFIX);
    }

  private:
    AVDictionary* dictionary_ = nullptr;
};

}  // namespace ox
