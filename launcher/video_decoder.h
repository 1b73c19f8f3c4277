#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "launcher/frame_assembler.h"
#include "launcher/frame_stamp.h"
#include "launcher/options.h"

struct AVFrame;

namespace ox::launcher {

/// One decoded picture. `image` is lent for the length of the callback; to keep it, take a
/// reference of one's own (av_frame_clone).
struct DecodedPicture {
    const AVFrame& image;
    uint32_t frame_id = 0;
    uint64_t timestamp = 0;  ///< capture time of its frame, 0 = not known
    uint32_t width = 0;
    uint32_t height = 0;
    LumaPlane luma;
};

/// Stops libav from writing to standard error, for the whole process.
void silence_libav();

/// Decodes access units with libavcodec, set up so that each picture comes out at once. Used by one
/// thread.
class VideoDecoder {
  public:
    using Sink = std::function<void(const DecodedPicture&)>;

    VideoDecoder();
    ~VideoDecoder();
    VideoDecoder(const VideoDecoder&) = delete;
    VideoDecoder& operator=(const VideoDecoder&) = delete;

    /// False, with a text for the user in `error`, when the codec is not available.
    bool open(Codec codec, std::string& error);

    /// Decodes one access unit and hands what comes out to `sink`. False when the decoder refused
    /// it; the next unit can be tried all the same.
    bool decode(const AssembledFrame& frame, const Sink& sink);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox::launcher
