#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

struct OpusEncoder;

namespace ox {

/// Low-delay Opus encoder (RFC 6716): 5 ms frames at a constant bitrate. Used by one thread.
class AudioEncoder {
  public:
    static constexpr int kFrameMs = 5;

    /// Opens the encoder for interleaved 16-bit samples, replacing an earlier one. False, after an
    /// error line, for a rate at which 5 ms are no Opus frame and when libopus refuses.
    bool init(int sample_rate, int channels, int bitrate_bps);

    /// Returns the packet's length, or a negative Opus error code with `out` empty.
    int encode(const int16_t* pcm, int samples_per_channel, std::vector<uint8_t>& out);

    void shutdown() { encoder_.reset(); }

    [[nodiscard]] int frame_samples() const { return frame_samples_; }
    // As read back from libopus; -1 when unavailable.
    [[nodiscard]] int application() const { return application_; }
    [[nodiscard]] int lookahead() const { return lookahead_; }
    [[nodiscard]] int vbr() const { return vbr_; }

    /// A frame and the lookahead.
    [[nodiscard]] double codec_delay_ms() const { return kFrameMs + lookahead_ms(); }

  private:
    struct Destroy {
        void operator()(OpusEncoder* encoder) const;
    };

    void configure(int bitrate_bps);
    void log_settings(int channels, int bitrate_bps) const;
    [[nodiscard]] double lookahead_ms() const;

    std::unique_ptr<OpusEncoder, Destroy> encoder_;
    int sample_rate_ = 0;
    int frame_samples_ = 0;
    int application_ = -1;
    int lookahead_ = -1;
    int vbr_ = -1;
};

}  // namespace ox
