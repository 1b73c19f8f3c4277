#include "launcher/audio_receiver.h"

namespace ox::launcher {

void AudioReceiver::on_datagram(std::span<const uint8_t> datagram, uint64_t now_us) {
    const auto packet = opener_.open(datagram);
    if (!packet) {
        ++stats_.undecryptable;
        return;
    }
    stats_.count_arrival(now_us);
    const PacketVerdict verdict = assembler_.push(packet->header, packet->payload, now_us);
    stats_.count(verdict);
    if (verdict == PacketVerdict::Data) stats_.data_bytes += packet->payload.size();
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
