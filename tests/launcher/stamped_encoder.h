#pragma once

#include <cstdint>
#include <memory>

#include "base/encoded_frame.h"
#include "launcher/options.h"

namespace ox::test {

/// Makes a low-delay stream of small grey pictures (320x64), each with its number as a stamp in the
/// top-left corner and a band of brightness `band_level(number)` below.
class StampedEncoder {
  public:
    static constexpr int kWidth = 320;
    static constexpr int kHeight = 64;

    /// Throws std::runtime_error when the codec's software encoder is missing.
    explicit StampedEncoder(launcher::Codec codec);
    ~StampedEncoder();

    /// The picture with the number `stamp` as frame `frame_id`, captured at `timestamp`.
    EncodedFrame encode(uint32_t stamp, uint32_t frame_id, uint64_t timestamp, bool keyframe);

    static uint8_t band_level(uint32_t stamp) { return static_cast<uint8_t>(60 + stamp % 120); }

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox::test
