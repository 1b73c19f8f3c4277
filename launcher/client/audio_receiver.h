#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "launcher/client/audio_assembler.h"
#include "launcher/client/media_packets.h"
#include "launcher/client/timing_stats.h"

struct OpusDecoder;

namespace ox::launcher {

/// Totals of the audio stream.
struct AudioStats : PacketCounters {
    uint64_t data_bytes = 0;      ///< of Opus in the data packets
    uint32_t first_sequence = 0;  ///< of the delivered frames
    uint32_t last_sequence = 0;
    double jitter_ms = 0;
    AudioCounters frames;
};

/// From datagrams to frames of sound in order: decrypts, repairs, counts. Pure; one thread.
class AudioReceiver {
  public:
    explicit AudioReceiver(std::span<const uint8_t, PacketOpener::kKeyBytes> key) : opener_(key) {}

    void on_datagram(std::span<const uint8_t> datagram, uint64_t now_us);
    /// Call every few milliseconds, also when nothing arrives.
    void on_time(uint64_t now_us) { assembler_.expire(now_us); }

    /// The next frame in order. Call until it returns none, after each call of the functions above.
    std::optional<AudioFrame> next_frame();

    [[nodiscard]] const AudioStats& stats() const { return stats_; }

  private:
    PacketOpener opener_;
    AudioAssembler assembler_;
    JitterMeter jitter_;
    AudioStats stats_;
};

/// Decodes Opus to 16-bit stereo at 48 kHz and conceals lost frames. Used by one thread.
class AudioDecoder {
  public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannels = 2;

    /// False, with a text for the user in `error`, on failure.
    bool open(std::string& error);

    /// Interleaved samples of the frame and of those lost before it; empty when the frame cannot be
    /// decoded. Valid until the next call.
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

/// Capture times of frames, without a gap unless their sending times show that the recording paused
/// or restarted; a burst after a network delay shows neither. Pure.
class AudioClock {
  public:
    /// Start of the frame in us of the agent's clock; nothing before the first frame with a time.
    std::optional<uint64_t> capture_time(const AudioFrame& frame);

  private:
    void correct(int64_t lateness_us);

    bool anchored_ = false;
    uint32_t sequence_ = 0;  ///< of the last frame
    uint64_t time_ = 0;      ///< of the last frame
    int late_frames_ = 0;    ///< late ones in a row, since the least late one
    int64_t least_lateness_us_ = 0;
};

}  // namespace ox::launcher
