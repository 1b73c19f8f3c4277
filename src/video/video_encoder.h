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

/// Low-delay encoder of BGRA pictures: constant bitrate, no B-frames, keyframes on demand. Tries
/// NVENC, VA-API and software. One thread, but for `force_idr`.
class VideoEncoder {
  public:
    VideoEncoder();
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    /// Opens the first backend that works, VA-API on the first render node that has it. False when
    /// none does; each failure has its log line.
    bool init(const EncoderSettings& settings);

    /// Takes tightly packed BGRA with `kReadSlack` behind it if it has to be scaled. Sets
    /// `out.data`, empty while an encoder buffers, and `out.timestamp`, that of the picture in it.
    /// False when not open or, after a log line, on failure. The same `content`, unless 0, spares
    /// the conversion.
    bool encode_bgra(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                     uint64_t timestamp, EncodedFrame& out, uint64_t content = 0);

    /// The next picture is a keyframe. If the backend refuses, the old bitrate is tried, then the
    /// rest of the ladder: see `name` and `bitrate_kbps`. False when not open, or when
    /// all refuse, which closes it.
    bool reconfigure_bitrate(uint32_t kbps);

    [[nodiscard]] uint32_t bitrate_kbps() const;

    void shutdown();

    /// Whether the open encoder can be told that pictures were lost, so that no later one refers to
    /// them. libavcodec has no way to tell its encoders so far.
    [[nodiscard]] bool can_invalidate_refs() const;
    /// Whether any encoder of the ladder can.
    [[nodiscard]] static bool any_backend_invalidates_refs();

    /// Gives up frames as references. False when it cannot; the launcher then needs a keyframe.
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
