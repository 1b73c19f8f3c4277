#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "launcher/client/control_messages.h"
#include "launcher/client/frame_assembler.h"

struct AVFrame;

namespace ox::launcher {

/// A brightness plane, one byte per pixel; row y begins at y * stride.
struct LumaPlane {
    std::span<const uint8_t> bytes;
    size_t stride = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// One decoded picture. `image` is valid during the callback only; av_frame_clone keeps it longer.
struct DecodedPicture {
    const AVFrame& image;
    uint32_t frame_id = 0;
    uint64_t timestamp = 0;  ///< capture time of its frame, 0 = unknown
    bool damaged = false;    ///< as AssembledFrame::damaged
    uint32_t width = 0;
    uint32_t height = 0;
    LumaPlane luma;
};

/// Stops libav from writing to standard error, for the whole process.
void silence_libav();

/// Decodes access units with libavcodec; each picture comes out at once. Used by one thread.
class VideoDecoder {
  public:
    using Sink = std::function<void(const DecodedPicture&)>;

    VideoDecoder();
    ~VideoDecoder();
    VideoDecoder(const VideoDecoder&) = delete;
    VideoDecoder& operator=(const VideoDecoder&) = delete;

    enum class Hardware : uint8_t { Never, WhereThere };

    /// False, with a text for the user in `error`, when the codec is not available.
    bool open(Codec codec, std::string& error, Hardware hardware = Hardware::Never);

    /// "software", or the kind of hardware that is in use: "vaapi", "cuda" ...
    [[nodiscard]] const char* kind() const;

    /// Decodes one access unit and passes its picture, always in memory, to `sink`. False when the
    /// decoder refused the unit; the next one can be tried nevertheless. Hardware that refuses is
    /// replaced by software, which starts at the next keyframe.
    bool decode(const AssembledFrame& frame, const Sink& sink);

  private:
    struct Impl;

    void pass_on(const AVFrame& image, const Sink& sink);

    std::unique_ptr<Impl> impl_;
};

}  // namespace ox::launcher
