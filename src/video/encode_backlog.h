#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <utility>

#include "base/encoded_frame.h"

namespace ox {

/// Holds the access units that an encoder emits beyond one per call. Bounded.
class EncodeBacklog {
  public:
    static constexpr size_t kCapacity = 8;

    /// Moves the oldest unit's data, timestamp and key mark into `out`. False when empty.
    bool pop(EncodedFrame& out) {
        if (units_.empty()) return false;
        EncodedFrame& oldest = units_.front();
        out.data = std::move(oldest.data);
        out.keyframe = oldest.keyframe;
        out.timestamp = oldest.timestamp;
        units_.pop_front();
        return true;
    }

    /// Stores a packet into `out` if that has no data yet, else behind the units held. False when
    /// there was no room and the packet is lost.
    bool deliver(std::span<const uint8_t> packet, bool keyframe, uint64_t timestamp,
                 EncodedFrame& out) {
        const bool direct = out.data.empty();
        if (!direct && units_.size() >= kCapacity) return false;
        EncodedFrame& unit = direct ? out : units_.emplace_back();
        unit.data.assign(packet.begin(), packet.end());
        unit.keyframe = keyframe;
        unit.timestamp = timestamp;
        return true;
    }

    void clear() { units_.clear(); }

  private:
    std::deque<EncodedFrame> units_;
};

}  // namespace ox
