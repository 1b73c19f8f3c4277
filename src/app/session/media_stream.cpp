#include "app/session/media_stream.h"

#include "app/board_reports.h"

namespace ox {

bool MediaStream::open(const std::string& launcher, uint16_t dest_port, uint16_t local_port) {
    // Parity for keyframes only: with repair for every picture a stream of small pictures would
    // grow by a packet each, and a lost one is mended by a keyframe.
    packetizer_.set_repair_ratio(0.0F);
    const bool opened = sender_.open(launcher, dest_port, local_port);
    report_bound_port(local_port, sender_.bind_error());
    return opened;
}

bool MediaStream::set_key(std::span<const uint8_t> key) {
    return !key.empty() && encryption_.set_key(key.data(), key.size());
}

void MediaStream::send(const EncodedFrame& frame) {
    packets_.clear();
    packetizer_.packetize(frame, kStreamVideo, packets_);
    for (OutgoingPacket& packet : packets_) {
        PacketPayload& payload = packet.payload;
        size_t sealed_bytes = 0;
        if (!encryption_.encrypt_packet(packet.header, payload.data(), payload.size(),
                                        payload.data(), sealed_bytes)) {
            continue;
        }
        payload.resize(sealed_bytes);
        sender_.send_packet(packet);
    }
}

}  // namespace ox
