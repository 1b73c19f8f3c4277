#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "transport/encryption.h"
#include "transport/outgoing_packet.h"
#include "transport/packetizer.h"
#include "transport/udp_sender.h"

namespace ox {

/// The way of one encoded picture to the launcher: packets, seal, paced send. Owned and used by the
/// frame loop's thread.
class MediaStream {
  public:
    /// Binds the sender. False when that fails.
    bool open(const std::string& launcher, uint16_t dest_port, uint16_t local_port);
    /// Takes a new stream key. False when it is not 32 bytes long.
    bool set_key(std::span<const uint8_t> key);
    /// Sends one picture. A packet that cannot be sealed is skipped.
    void send(const EncodedFrame& frame);
    void close() { sender_.close(); }

    UdpSender& sender() { return sender_; }
    [[nodiscard]] const UdpSender& sender() const { return sender_; }

  private:
    UdpSender sender_;
    Encryption encryption_;
    Packetizer packetizer_;
    std::vector<OutgoingPacket> packets_;  ///< reused, so that a frame allocates nothing
};

}  // namespace ox
