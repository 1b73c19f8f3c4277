#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "video/encoder_ladder.h"
#include "video/libav.h"

namespace ox {

/// One opened encoder of libavcodec with the frames and the packet it works with.
class CodecSession {
  public:
    /// With VA-API on the card of `node`; empty: libav's choice.
    static std::variant<std::unique_ptr<CodecSession>, EncoderFailure> open(
        const EncoderChoice& choice, const EncoderSettings& settings, const std::string& node);

    /// Format of the picture in memory: YUV420P or NV12.
    [[nodiscard]] AVPixelFormat picture_format() const;

    /// The frame to write the next picture into; null, with `error` set, when memory runs out.
    AVFrame* writable_picture();

    /// Sends the written picture; `captured_at` is returned with its packets.
    bool send_picture(bool keyframe, uint64_t captured_at);

    /// Valid until the next call; null when the encoder needs a picture or has failed.
    const AVPacket* receive_packet();

    /// Capture time of a packet's picture, also when the encoder delayed it.
    [[nodiscard]] uint64_t captured_at(const AVPacket& packet) const;
    /// Libav's error that ended the session; 0 while it works.
    [[nodiscard]] int error() const { return error_; }

  private:
    CodecSession() = default;
    // These return libav's errors: negative on failure.
    int set_up(const EncoderChoice& choice, const EncoderSettings& settings,
               const std::string& node);
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
    /// By picture number; more than any encoder delays.
    std::array<uint64_t, 64> captured_at_{};
    EncoderStage stage_ = EncoderStage::Settings;  // reached
    int error_ = 0;
};

}  // namespace ox
