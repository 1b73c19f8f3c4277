#pragma once

// Private to this folder: owners for libav's objects, and its log.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "base/c_handle.h"

namespace ox {

/// For libav's functions that free an object through a pointer to its pointer.
template <auto Free>
struct AvDeleter {
    template <typename T>
    void operator()(T* object) const {
        Free(&object);
    }
};

using AvCodecContextPtr = std::unique_ptr<AVCodecContext, AvDeleter<avcodec_free_context>>;
using AvFramePtr = std::unique_ptr<AVFrame, AvDeleter<av_frame_free>>;
using AvPacketPtr = std::unique_ptr<AVPacket, AvDeleter<av_packet_free>>;
using AvBufferRefPtr = std::unique_ptr<AVBufferRef, AvDeleter<av_buffer_unref>>;
using SwsContextPtr = CHandle<SwsContext, sws_freeContext>;

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

/// Collects the first few kilobytes of libav's warnings and errors on this thread, whatever the
/// log's level, without allocating. One at a time per thread. From the first one on libav logs, in
/// the whole process, at level DEBUG instead of to standard error.
class LibavLogCapture {
  public:
    LibavLogCapture();
    ~LibavLogCapture();
    LibavLogCapture(const LibavLogCapture&) = delete;
    LibavLogCapture& operator=(const LibavLogCapture&) = delete;

    /// As libav wrote it, without the names of its objects.
    [[nodiscard]] std::string messages() const { return all_.text(); }
    /// Without the warnings, most of which are harmless.
    [[nodiscard]] std::string errors() const { return errors_.text(); }

    /// A line or a part of one; `level` is libav's.
    void append(int level, std::string_view text);

  private:
    struct Buffer {
        std::array<char, 2048> bytes{};
        size_t size = 0;
        void append(std::string_view text);
        [[nodiscard]] std::string text() const { return {bytes.data(), size}; }
    };
    Buffer all_;
    Buffer errors_;
};

}  // namespace ox
