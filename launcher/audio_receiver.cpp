#include "launcher/audio_receiver.h"

namespace ox::launcher {

void AudioReceiver::on_datagram(std::span<const uint8_t> datagram, uint64_t now_us) {
    const auto packet = opener_.open(datagram);
    if (!packet) {
        ++stats_.undecryptable;
        return;
    }
    if (stats_.packets++ == 0) stats_.first_media_us = now_us;
    stats_.last_media_us = now_us;
    count(assembler_.push(packet->header, packet->payload, now_us), *packet);
}

void AudioReceiver::count(PacketVerdict verdict, const PacketOpener::Packet& packet) {
    switch (verdict) {
        case PacketVerdict::Data:
            ++stats_.data_packets;
            stats_.data_bytes += packet.payload.size();
            break;
        case PacketVerdict::Repair:
            ++stats_.repair_packets;
            break;
        case PacketVerdict::Duplicate:
            ++stats_.duplicates;
            break;
        case PacketVerdict::Late:
            ++stats_.late;
            break;
        case PacketVerdict::Malformed:
            ++stats_.malformed;
            break;
    }
}

std::optional<AudioFrame> AudioReceiver::next_frame() {
    auto frame = assembler_.pop();
    stats_.frames = assembler_.counters();
    if (!frame) return std::nullopt;
    if (frame->timestamp != 0) jitter_.add(frame->timestamp, frame->arrived);
    stats_.jitter_ms = jitter_.jitter_ms();
    if (stats_.frames.delivered == 1) stats_.first_sequence = frame->sequence;
    stats_.last_sequence = frame->sequence;
    return frame;
}

}  // namespace ox::launcher
