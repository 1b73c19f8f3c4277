#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "base/encoded_frame.h"
#include "video/video_codec.h"

namespace ox {

enum class EncoderBackend : uint32_t { Auto = 0, Nvenc = 1, Vaapi = 2, Software = 3 };

struct EncoderSettings {
    VideoCodec codec = VideoCodec::H264;
    EncoderBackend backend = EncoderBackend::Auto;
    uint32_t width = 1920;  ///< encoded size, even
    uint32_t height = 1080;
    uint32_t fps = 60;
    uint32_t bitrate_kbps = 15000;
};

/// Low-delay encoder: BGRA pictures in, one access unit per picture out, constant bitrate, no
/// B-frames, keyframes on demand. Tries NVENC, VA-API and software in this order. Used by one
/// thread, but for `force_idr`.
class VideoEncoder {
  public:
    VideoEncoder();
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    /// Opens the first backend that works, VA-API on the first render node that has it. False when
    /// none does; each failure has its log line.
    bool init(const EncoderSettings& settings);

    /// Encodes one picture of tightly packed BGRA pixels, with `kReadSlack` (video/capture.h)
    /// readable bytes behind them if it has to be scaled. Sets `out.data`, empty while an encoder
    /// buffers, and `out.timestamp`, that of the picture in `out.data`. False when not open or when
    /// the encoder fails, which is logged with its cause. A `content` other than 0 identifies the
    /// pixels: the same number as before spares the conversion.
    bool encode_bgra(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                     uint64_t timestamp, EncodedFrame& out, uint64_t content = 0);

    /// Re-opens the same backend at a new bitrate; the next encoded picture is a keyframe. If it
    /// refuses, the old bitrate is tried, then the rest of the ladder: see `name` and
    /// `bitrate_kbps`. False, with the encoder closed, when all of them refuse; false when not
    /// open.
    bool reconfigure_bitrate(uint32_t kbps);

    /// The bitrate in force.
    [[nodiscard]] uint32_t bitrate_kbps() const;

    /// Frees everything. Safe to call twice.
    void shutdown();

    /// Whether the open encoder can be told that pictures were lost, so that no later one refers to
    /// them. libavcodec has no way to tell its encoders so far.
    [[nodiscard]] bool can_invalidate_refs() const;
    /// Whether any encoder of the ladder can.
    [[nodiscard]] static bool any_backend_invalidates_refs();

    /// Gives up the pictures `first` to `last` (frame ids) as references. False when the encoder
    /// cannot; the launcher then needs a keyframe.
    bool invalidate_refs(uint32_t first, uint32_t last);

    /// For the log: how the stream recovers from lost pictures.
    [[nodiscard]] const char* rfi_status() const;

    /// libavcodec's name of the backend in use; empty when none.
    [[nodiscard]] const std::string& name() const;

    /// Makes the next encoded picture a keyframe. Any thread may set it.
    std::atomic<bool> force_idr{false};

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox
