#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "base/encoded_frame.h"

namespace ox {

/// Keeps the access units that an encoder emits beyond one per call: the caller can send only one
/// at a time. Bounded; what does not fit is refused.
class EncodeBacklog {
  public:
    static constexpr size_t kCapacity = 8;

    /// Moves the oldest kept unit's data, timestamp and key mark into `out`. False when empty.
    bool pop(EncodedFrame& out);

    /// Stores a packet into `out` if that holds no data yet, else behind the kept ones. False when
    /// there was no room and the packet is lost.
    bool deliver(std::span<const uint8_t> packet, bool keyframe, uint64_t timestamp,
                 EncodedFrame& out);

    void clear() { kept_.clear(); }

  private:
    std::deque<EncodedFrame> kept_;
};

}  // namespace ox
