#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "video/av_handles.h"
#include "video/encoder_options.h"

namespace ox {

/// One opened encoder of libavcodec with the frames and the packet it works with.
class CodecSession {
  public:
    /// Null, with libav's number in `error`, when the encoder is missing, lacks its device or
    /// refuses.
    static std::unique_ptr<CodecSession> open_with(const EncoderChoice& choice,
                                                   const EncoderSettings& settings, int& error);

    /// Format of the picture in memory: YUV420P or NV12.
    [[nodiscard]] AVPixelFormat picture_format() const;

    /// The frame to write the next picture into; null when memory runs out.
    AVFrame* writable_picture();

    /// Hands the written picture to the encoder; `captured_at` comes back with its packets. False
    /// on failure.
    bool send_picture(bool keyframe, uint64_t captured_at);

    /// The next finished packet, valid until the next call; null when the encoder wants a picture
    /// or has failed (`failed` tells).
    const AVPacket* receive_packet();
    /// Capture time of the picture that a packet holds, however long the encoder held it back.
    [[nodiscard]] uint64_t captured_at(const AVPacket& packet) const;
    [[nodiscard]] bool failed() const { return failed_; }

  private:
    CodecSession() = default;
    // Of libav's kind: negative on failure.
    int open(const EncoderChoice& choice, const EncoderSettings& settings);
    int configure(const EncoderChoice& choice, const EncoderSettings& settings);
    int attach_vaapi_surfaces();
    int open_codec(const EncoderChoice& choice, const AVCodec* codec);
    int allocate_buffers();

    AvBufferRefPtr device_;
    AvCodecContextPtr context_;
    AvFramePtr picture_;
    AvFramePtr surface_;  // only with a VA-API device
    AvPacketPtr packet_;
    int64_t next_pts_ = 0;
    /// By the pictures' numbers; more than any encoder holds back.
    std::array<uint64_t, 64> captured_at_{};
    bool failed_ = false;
};

}  // namespace ox
