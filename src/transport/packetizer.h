#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/encoded_frame.h"
#include "transport/packet.h"

namespace ox {

/// XORs `length` bytes of `src` into `dst`. The two do not overlap; any alignment.
void xor_into(uint8_t* dst, const uint8_t* src, size_t length) noexcept;

/// Splits access units into packets and adds XOR parity: one repair packet for every 8 data packets
/// of a keyframe, and of any frame when the repair ratio is above 0. No state between frames.
class Packetizer {
  public:
    static constexpr size_t kGroupPackets = 8;  ///< data packets that one repair packet covers

    /// Share of repair packets, clamped to 0..0.5. Only whether it is above 0 matters.
    void set_repair_ratio(float ratio);
    [[nodiscard]] float repair_ratio() const;

    /// Appends data packets in order, then repair packets, in plaintext; a lone video packet is
    /// followed by its copy. A frame of more than 65535 packets is dropped with
    /// an error line.
    void packetize(const EncodedFrame& frame, uint32_t stream,
                   std::vector<OutgoingPacket>& out) const;

  private:
    uint32_t ratio_e4_ = 0;  ///< repair ratio in ten-thousandths
};

}  // namespace ox
