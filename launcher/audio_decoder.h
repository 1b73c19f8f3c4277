#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "launcher/audio_assembler.h"

struct OpusDecoder;

namespace ox::launcher {

/// Decodes Opus to 16-bit stereo at 48 kHz, with the decoder's own guess in place of lost frames.
/// Used by one thread.
class AudioDecoder {
  public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannels = 2;

    /// False, with a text for the user in `error`, when there is no decoder to be had.
    bool open(std::string& error);

    /// Left and right samples in turn of the frame and of those lost before it; empty when the
    /// frame cannot be decoded. They last until the next call.
    std::span<const int16_t> decode(const AudioFrame& frame);

    [[nodiscard]] uint64_t frames() const { return frames_; }
    [[nodiscard]] uint64_t concealed() const { return concealed_; }
    [[nodiscard]] uint64_t errors() const { return errors_; }

  private:
    struct Deleter {
        void operator()(OpusDecoder* decoder) const noexcept;
    };

    std::unique_ptr<OpusDecoder, Deleter> decoder_;
    std::vector<int16_t> samples_;
    int frame_samples_ = 240;  ///< per channel, of the frame before
    uint64_t frames_ = 0;
    uint64_t concealed_ = 0;
    uint64_t errors_ = 0;
};

}  // namespace ox::launcher
