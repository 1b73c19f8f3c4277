#include "launcher/client/video_receiver.h"

namespace ox::launcher {

std::optional<PacketHeader> VideoReceiver::on_datagram(std::span<const uint8_t> datagram,
                                                       uint64_t now_us) {
    const auto packet = opener_.open(datagram);
    if (!packet) {
        ++stats_.undecryptable;
        return std::nullopt;
    }
    if (stats_.packets == 0) gate_.on_start(now_us);
    stats_.count_arrival(now_us);
    stats_.bytes += datagram.size();
    stats_.count(assembler_.push(packet->header, packet->payload, now_us));
    stats_.assembly = assembler_.counters();
    return packet->header;
}

std::optional<AssembledFrame> VideoReceiver::next_frame() {
    while (auto frame = assembler_.pop()) {
        if (frame->timestamp != 0) jitter_.add(frame->timestamp, frame->completed);
        stats_.jitter_ms = jitter_.jitter_ms();
        if (frame->keyframe) {
            ++stats_.keyframes;
            seen_keyframe_ = true;
        }
        last_assembled_ = frame->frame_id;
        if (frame->lost_before > 0) {
            gate_.on_loss();
            lost_.on_lost(frame->frame_id - 1);
        }
        const bool intact = gate_.admit(frame->keyframe);
        if (intact) lost_.on_intact(frame->frame_id);
        frame->damaged = !intact;
        if (intact || (decode_damaged_ && seen_keyframe_)) return frame;
        ++stats_.frames_withheld;
    }
    if (const uint64_t lost = assembler_.lost_since_delivery(); lost > 0) {
        gate_.on_loss();
        lost_.on_lost(last_assembled_ + static_cast<uint32_t>(lost));
    }
    stats_.assembly = assembler_.counters();
    return std::nullopt;
}

std::optional<KeyframeRequest> VideoReceiver::take_keyframe_request(uint64_t now_us) {
    stats_.awaiting_keyframe = !gate_.is_open();
    if (!gate_.take_request(now_us)) return std::nullopt;
    ++stats_.keyframe_requests;
    return KeyframeRequest{.lost = lost_.next_request()};
}

}  // namespace ox::launcher
