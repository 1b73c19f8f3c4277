#pragma once

#include <cstdint>
#include <optional>

#include "launcher/audio_assembler.h"

struct AVFormatContext;
struct AVStream;

namespace ox::launcher {

/// Adds a stream of 48 kHz stereo Opus (RFC 7845) to a file. Null when memory runs out.
AVStream* add_opus_stream(AVFormatContext& format);

/// Places frames of sound in time: one follows the other without a gap, as they were recorded,
/// until their times of sending say that the recording has paused or started anew. A burst that
/// makes up for a delay on the way says neither. Pure.
class AudioClock {
  public:
    /// Start of the frame in us of the agent's clock; nothing while no frame has told a time.
    std::optional<uint64_t> place(const AudioFrame& frame);

  private:
    void follow(int64_t lateness_us);

    bool anchored_ = false;
    uint32_t sequence_ = 0;  ///< of the frame placed last
    uint64_t time_ = 0;      ///< of the frame placed last
    int late_frames_ = 0;    ///< sent too late, since the one that was the least so
    int64_t least_lateness_us_ = 0;
};

}  // namespace ox::launcher
