#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "launcher/audio_assembler.h"
#include "launcher/jitter_meter.h"
#include "launcher/packet_counters.h"
#include "launcher/packet_opener.h"

namespace ox::launcher {

/// What the audio stream has brought so far.
struct AudioStats : PacketCounters {
    uint64_t data_bytes = 0;      ///< of Opus in the data packets
    uint32_t first_sequence = 0;  ///< of the frames handed out
    uint32_t last_sequence = 0;
    double jitter_ms = 0;
    AudioCounters frames;
};

/// From datagrams to frames of sound in order: opens, assembles, repairs and counts. Pure; used by
/// one thread.
class AudioReceiver {
  public:
    explicit AudioReceiver(std::span<const uint8_t, PacketOpener::kKeyBytes> key) : opener_(key) {}

    void on_datagram(std::span<const uint8_t> datagram, uint64_t now_us);
    /// Call every few milliseconds, also when nothing arrives.
    void on_time(uint64_t now_us) { assembler_.expire(now_us); }

    /// The next frame in order. Ask until there is none, after each call of the functions above.
    std::optional<AudioFrame> next_frame();

    [[nodiscard]] const AudioStats& stats() const { return stats_; }

  private:
    PacketOpener opener_;
    AudioAssembler assembler_;
    JitterMeter jitter_;
    AudioStats stats_;
};

}  // namespace ox::launcher
