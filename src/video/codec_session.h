#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "video/av_handles.h"
#include "video/encoder_failure.h"
#include "video/encoder_options.h"

namespace ox {

/// One opened encoder of libavcodec with the frames and the packet it works with.
class CodecSession {
  public:
    /// With VA-API on the card of `node`, or of libav's choice when that is empty. Null, with how
    /// far it came and libav's number in `failure`, when the encoder is missing, lacks its card or
    /// refuses.
    static std::unique_ptr<CodecSession> open_with(const EncoderChoice& choice,
                                                   const EncoderSettings& settings,
                                                   const std::string& node,
                                                   EncoderFailure& failure);

    /// Format of the picture in memory: YUV420P or NV12.
    [[nodiscard]] AVPixelFormat picture_format() const;

    /// The frame to write the next picture into; null, and failed, when memory runs out.
    AVFrame* writable_picture();

    /// Hands the written picture to the encoder; `captured_at` comes back with its packets. False
    /// on failure.
    bool send_picture(bool keyframe, uint64_t captured_at);

    /// The next finished packet, valid until the next call; null when the encoder wants a picture
    /// or has failed.
    const AVPacket* receive_packet();

    /// Capture time of the picture that a packet holds, however long the encoder held it back.
    [[nodiscard]] uint64_t captured_at(const AVPacket& packet) const;
    /// Libav's number of what broke the session; 0 while it works.
    [[nodiscard]] int error() const { return error_; }

  private:
    CodecSession() = default;
    // Of libav's kind: negative on failure.
    int open(const EncoderChoice& choice, const EncoderSettings& settings, const std::string& node);
    void configure(const EncoderChoice& choice, const EncoderSettings& settings);
    int open_vaapi_device(const std::string& node);
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
    EncoderStage stage_ = EncoderStage::Settings;  // reached
    int error_ = 0;
};

}  // namespace ox
