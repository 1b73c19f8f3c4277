#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace ox::bench {

/// Access units out of an RTP stream after RFC 6184 (single NAL units, STAP-A, FU-A), each complete
/// with the packet that carries the marker bit. For loopback: packets out of order count as lost.
class RtpH264 {
  public:
    /// The access unit (Annex-B) that this packet completes.
    std::optional<std::vector<uint8_t>> push(std::span<const uint8_t> packet);

    [[nodiscard]] uint64_t lost() const { return lost_; }

  private:
    void append_unit(std::span<const uint8_t> unit);
    void append_aggregate(std::span<const uint8_t> units);
    void append_fragment(std::span<const uint8_t> fragment);

    std::vector<uint8_t> unit_;
    std::optional<uint16_t> expected_;
    uint64_t lost_ = 0;
};

}  // namespace ox::bench
