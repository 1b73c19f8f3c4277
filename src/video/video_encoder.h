#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "base/encoded_frame.h"

namespace ox {

enum class VideoCodec : uint32_t { H264 = 0, Hevc = 1 };
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

    /// Encodes one picture of `source_width` x `source_height` tightly packed BGRA pixels, with
    /// `kReadSlack` (video/capture.h) readable bytes behind them if it has to be scaled. True with
    /// empty `out.data` while an encoder buffers; `out.timestamp` is that of the picture that came
    /// out. False when not open or on an encoder failure, whose cause is logged. A `content` other
    /// than 0 names the pixels: a picture with the number of the one before is not converted again.
    bool encode_bgra(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                     uint64_t timestamp, EncodedFrame& out, uint64_t content = 0);

    /// Re-opens the same backend at a new bitrate; the next encoded picture is a keyframe. When it
    /// refuses, it is tried once more at the old bitrate, then what else the settings allow: `name`
    /// and `bitrate_kbps` tell what came of it. False when not open or when all of them refuse,
    /// which leaves the encoder closed.
    bool reconfigure_bitrate(uint32_t kbps);

    /// The bitrate in force.
    [[nodiscard]] uint32_t bitrate_kbps() const;

    /// Frees everything. Safe to call twice.
    void shutdown();

    /// Whether the open encoder can be told that pictures were lost, so that later ones refer to
    /// none of them. libavcodec passes that on to none of its encoders so far.
    [[nodiscard]] bool can_invalidate_refs() const;
    /// The same of any encoder that might be opened.
    [[nodiscard]] static bool any_backend_invalidates_refs();

    /// Gives up the pictures `first` to `last` (frame ids) as references. False when the encoder
    /// cannot; the launcher then needs a keyframe.
    bool invalidate_refs(uint32_t first, uint32_t last);

    /// For the log: how lost pictures are made up for.
    [[nodiscard]] const char* rfi_status() const;

    /// libavcodec's name of the backend in use; empty when none.
    [[nodiscard]] const std::string& name() const;

    /// Makes the next encoded picture a keyframe. Any thread may set it.
    std::atomic<bool> force_idr{false};

  private:
    bool encode(const uint8_t* pixels, uint64_t timestamp, uint64_t content, EncodedFrame& out);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox
