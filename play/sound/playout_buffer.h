#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "base/mutex.h"
#include "play/sound/level_control.h"
#include "play/sound/sample_ring.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier): libsamplerate's name
struct SRC_STATE_tag;

namespace ox::play {

struct PlayoutStats {
    bool playing = false;
    double level_ms = 0;  ///< mean, right after the device took sound
    double target_ms = 0;
    double drift_ppm = 0;  ///< the source's clock against the device's; positive: it is faster
    double dropped_ms = 0;
    uint64_t underruns = 0;
    std::optional<double> lag_ms;  ///< of the sound behind the picture; negative: ahead of it
};

/// Between the network's sound and the device, both stereo at 48 kHz: evens out jitter and corrects
/// drift by resampling at a continuously varying ratio. Underruns fade out and in, excess is
/// dropped in one crossfade. One thread calls `push`, one `pull`, any the rest; all pass own
/// monotonic time. Nothing allocates; the lock is held for the copy of a few samples.
class PlayoutBuffer {
  public:
    static constexpr int kSampleRate = 48000;

    PlayoutBuffer();

    /// Adds interleaved samples. `capture_end_us`: when their recording ended, on the agent's
    /// clock.
    void push(std::span<const int16_t> pcm, std::optional<uint64_t> capture_end_us,
              uint64_t now_us);
    /// Fills `pcm` with interleaved samples of -1..1. Safe in a real-time callback.
    void pull(std::span<float> pcm, uint64_t now_us);
    /// Begins anew with the latest sound, from silence. Call before a device that was opened again
    /// pulls.
    void restart();

    /// Capture time of the sound that leaves the device now, if the device plays it `device_us`
    /// after it was pulled.
    [[nodiscard]] std::optional<uint64_t> heard_us(uint64_t now_us, uint64_t device_us) const;
    /// Tells which picture has just been shown. The target then keeps picture and sound within
    /// 40 ms, as far as 20 ms of sound allow.
    void picture_shown(uint64_t capture_us, uint64_t now_us, uint64_t device_us);

    [[nodiscard]] PlayoutStats stats() const;

  private:
    enum class Phase : uint8_t { Silent, FadingIn, Playing, FadingOut };
    struct ConverterDeleter {
        void operator()(SRC_STATE_tag* converter) const noexcept;
    };
    static constexpr size_t kFadeFrames = 144;  ///< 3 ms
    static constexpr size_t kChunkFrames = 32;  ///< how much the converter is given at a time
    static constexpr size_t kReserveFrames = kFadeFrames + kChunkFrames;  ///< for fading out

    void begin_pull(size_t frames, uint64_t now_us) OX_REQUIRES(mutex_);
    void start_playing(size_t frames, uint64_t now_us) OX_REQUIRES(mutex_);
    /// What of the next arrival continuous sound would have brought already.
    [[nodiscard]] double arriving_ms(uint64_t now_us) const OX_REQUIRES(mutex_);
    void fade_out(size_t frames) OX_REQUIRES(mutex_);
    void drop_excess() OX_REQUIRES(mutex_);
    void resample(std::span<float> pcm);
    bool refill();
    void apply_gain(std::span<float> pcm);
    void fall_silent();
    void end_pull(size_t frames, uint64_t now_us) OX_REQUIRES(mutex_);
    [[nodiscard]] std::optional<uint64_t> heard_at(uint64_t now_us, uint64_t device_us) const
        OX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    SampleRing ring_ OX_GUARDED_BY(mutex_);
    bool restart_ OX_GUARDED_BY(mutex_) = false;
    uint64_t pushed_at_us_ OX_GUARDED_BY(mutex_) = 0;
    std::optional<uint64_t> capture_end_us_ OX_GUARDED_BY(mutex_);  ///< of the newest sample
    std::optional<uint64_t> pulled_capture_us_ OX_GUARDED_BY(mutex_);
    uint64_t pulled_at_us_ OX_GUARDED_BY(mutex_) = 0;
    uint64_t picture_at_us_ OX_GUARDED_BY(mutex_) = 0;
    PlayoutStats stats_ OX_GUARDED_BY(mutex_);

    // The pulling thread's:
    LevelControl control_;
    std::unique_ptr<SRC_STATE_tag, ConverterDeleter> converter_;
    std::array<float, kChunkFrames * 2> chunk_{};
    size_t chunk_begin_ = 0;  ///< frames that the converter has not taken
    size_t chunk_end_ = 0;
    Phase phase_ = Phase::Silent;
    size_t fade_position_ = 0;            ///< 0 = silent, kFadeFrames = full
    size_t fade_after_ = 0;               ///< frames of this pull before the fade out begins
    uint64_t starved_since_push_us_ = 0;  ///< the last push before the underrun
    std::array<float, kFadeFrames + 1> gain_{};
};

}  // namespace ox::play
