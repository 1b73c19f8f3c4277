#include "launcher/client/frame_assembler.h"

#include <algorithm>

namespace ox::launcher {

namespace {

constexpr size_t kGroupPackets = 8;        // data packets under one parity packet
constexpr size_t kMaxRepairPackets = 255;  // per frame
constexpr size_t kDroppedRanges = 32;

size_t group_end(size_t group, size_t count) {
    return std::min((group + 1) * kGroupPackets, count);
}

void xor_into(uint8_t* target, const uint8_t* source) {
    for (size_t i = 0; i < kVideoPayloadBytes; ++i)
        target[i] = static_cast<uint8_t>(target[i] ^ source[i]);
}

// Whether header and size are consistent.
bool is_plausible(const PacketHeader& header, size_t size) {
    if (header.stream != kStreamVideo || header.count == 0) return false;
    if ((header.flags & (packet_flags::AUDIO | packet_flags::AUDIO_PARITY)) != 0) return false;
    if ((header.flags & packet_flags::FEC_PACKET) != 0) {
        if (header.index < header.count || size != kVideoPayloadBytes) return false;
        const size_t groups = (header.count + kGroupPackets - 1U) / kGroupPackets;
        return size_t{header.index} - header.count < std::min(groups, kMaxRepairPackets);
    }
    if (header.index >= header.count) return false;
    const bool last = header.index + 1 == header.count;
    return last ? size >= 1 && size <= kVideoPayloadBytes : size == kVideoPayloadBytes;
}

}  // namespace

PacketVerdict FrameAssembler::push(const PacketHeader& header, std::span<const uint8_t> payload,
                                   uint64_t now_us) {
    if (!is_plausible(header, payload.size())) return PacketVerdict::Malformed;
    const bool repair = (header.flags & packet_flags::FEC_PACKET) != 0;
    const int64_t id = unwrap(header.frame_id);
    if (id < next_) {
        if (repair) return PacketVerdict::Repair;
        return was_dropped(id) ? PacketVerdict::Late : PacketVerdict::Duplicate;
    }
    Frame* frame = frame_for(id, header, now_us);
    if (frame == nullptr) return PacketVerdict::Malformed;
    if (frame->complete()) return repair ? PacketVerdict::Repair : PacketVerdict::Duplicate;

    const PacketVerdict verdict =
        repair ? add_repair(*frame, header, payload) : add_data(*frame, header, payload);
    if (frame->complete()) frame->completed = now_us;
    deliver_or_drop(now_us);
    return verdict;
}

// Frame numbers wrap at 2^32: takes the number nearest to `next_`. Before the first delivery, a
// frame that was overtaken on the way moves the start back.
int64_t FrameAssembler::unwrap(uint32_t frame_id) {
    constexpr int64_t kWrap = int64_t{1} << 32;
    if (!started_) {
        started_ = true;
        next_ = kWrap + frame_id;  // one round up, so that going back never gets below zero
        return next_;
    }
    const auto distance = static_cast<int32_t>(frame_id - static_cast<uint32_t>(next_));
    const int64_t id = next_ + distance;
    if (!settled_ && distance < 0 && distance >= -static_cast<int64_t>(limits_.reorder_frames))
        next_ = id;
    return id;
}

FrameAssembler::Frame* FrameAssembler::frame_for(int64_t id, const PacketHeader& header,
                                                 uint64_t now_us) {
    const bool keyframe = (header.flags & packet_flags::KEYFRAME) != 0;
    const auto [it, fresh] = frames_.try_emplace(id);
    Frame& frame = it->second;
    if (fresh) {
        frame.count = header.count;
        frame.keyframe = keyframe;
        frame.first_seen = now_us;
        frame.held.resize(header.count);
        return &frame;
    }
    return frame.count == header.count && frame.keyframe == keyframe ? &frame : nullptr;
}

PacketVerdict FrameAssembler::add_data(Frame& frame, const PacketHeader& header,
                                       std::span<const uint8_t> payload) {
    if (frame.held[header.index]) return PacketVerdict::Duplicate;
    std::ranges::copy(payload, slot(frame, header.index));
    frame.held[header.index] = true;
    ++frame.arrived;
    if (header.index == 0) frame.timestamp = header.timestamp;
    if (header.index + 1 == frame.count) frame.last_size = payload.size();
    recover(frame, header.index / kGroupPackets);
    return PacketVerdict::Data;
}

PacketVerdict FrameAssembler::add_repair(Frame& frame, const PacketHeader& header,
                                         std::span<const uint8_t> payload) {
    const size_t group = size_t{header.index} - frame.count;
    if (group >= frame.parity.size()) frame.parity.resize(group + 1);
    if (!frame.parity[group].empty()) return PacketVerdict::Repair;
    frame.parity[group].assign(payload.begin(), payload.end());
    frame.bytes += payload.size();
    bytes_ += payload.size();
    recover(frame, group);
    return PacketVerdict::Repair;
}

// Rebuilds the missing data packet of `group` if it is the only one and the parity is there.
void FrameAssembler::recover(Frame& frame, size_t group) {
    if (group >= frame.parity.size() || frame.parity[group].empty()) return;
    const size_t begin = group * kGroupPackets;
    const size_t end = group_end(group, frame.count);
    size_t missing = end;
    for (size_t i = begin; i < end; ++i) {
        if (frame.held[i]) continue;
        if (missing != end) return;
        missing = i;
    }
    if (missing == end) return;

    // `slot` reallocates nothing below: received packets have their slots. The unused part of a
    // short last packet's slot is zero.
    uint8_t* rebuilt = slot(frame, missing);
    std::ranges::copy(frame.parity[group], rebuilt);
    for (size_t i = begin; i < end; ++i)
        if (i != missing) xor_into(rebuilt, slot(frame, i));

    frame.held[missing] = true;
    ++frame.recovered;
    if (missing + 1 == frame.count) {
        // Parity does not carry the length. No NAL unit ends in a zero byte, so zeros are padding.
        frame.last_size = kVideoPayloadBytes;
        while (frame.last_size > 0 && rebuilt[frame.last_size - 1] == 0)
            --frame.last_size;
    }
}

// Where data packet `index` lies; makes room up to its end. Bytes not written yet are zero.
uint8_t* FrameAssembler::slot(Frame& frame, size_t index) {
    const size_t end = (index + 1) * kVideoPayloadBytes;
    if (frame.data.size() < end) {
        frame.bytes += end - frame.data.size();
        bytes_ += end - frame.data.size();
        frame.data.resize(end);
    }
    return frame.data.data() + index * kVideoPayloadBytes;
}

void FrameAssembler::deliver_or_drop(uint64_t now_us) {
    while (!frames_.empty()) {
        const auto head = frames_.begin();
        if (head->first == next_ && head->second.complete()) {
            deliver_head();
        } else if (head_is_overdue(now_us)) {
            drop_head();
        } else {
            return;
        }
    }
}

bool FrameAssembler::head_is_overdue(uint64_t now_us) const {
    if (frames_.size() > limits_.pending_frames) return true;
    if (bytes_ > limits_.pending_bytes) return true;
    size_t complete = 0;
    for (auto later = frames_.upper_bound(next_); later != frames_.end(); ++later) {
        if (now_us >= later->second.first_seen + limits_.reorder_us) return true;
        if (later->second.complete() && ++complete >= limits_.reorder_frames) return true;
    }
    return false;
}

void FrameAssembler::deliver_head() {
    Frame& frame = frames_.begin()->second;
    frame.data.resize((frame.count - 1U) * kVideoPayloadBytes + frame.last_size);
    ++counters_.frames_complete;
    if (frame.recovered > 0) ++counters_.frames_repaired;
    counters_.packets_expected += frame.count;
    counters_.packets_lost += frame.recovered;
    counters_.packets_recovered += frame.recovered;
    ready_.push_back({.data = std::move(frame.data),
                      .frame_id = static_cast<uint32_t>(next_),
                      .keyframe = frame.keyframe,
                      .timestamp = frame.timestamp,
                      .first_seen = frame.first_seen,
                      .completed = frame.completed,
                      .lost_before = lost_since_delivery_});
    lost_since_delivery_ = 0;
    erase_head();
    ++next_;
    settled_ = true;
}

// Drops the frame that is next, or the whole gap of frames of which nothing arrived.
void FrameAssembler::drop_head() {
    const auto head = frames_.begin();
    const int64_t first = next_;
    if (head->first == next_) {
        const Frame& frame = head->second;
        counters_.packets_expected += frame.count;
        counters_.packets_lost += frame.count - frame.arrived;
        counters_.packets_recovered += frame.recovered;
        erase_head();
        ++next_;
    } else {
        next_ = head->first;
        counters_.packets_expected += static_cast<uint64_t>(next_ - first);
        counters_.packets_lost += static_cast<uint64_t>(next_ - first);
    }
    counters_.frames_lost += static_cast<uint64_t>(next_ - first);
    lost_since_delivery_ += static_cast<uint64_t>(next_ - first);
    dropped_.emplace_back(first, next_);
    if (dropped_.size() > kDroppedRanges) dropped_.pop_front();
    settled_ = true;
}

void FrameAssembler::erase_head() {
    const auto head = frames_.begin();
    bytes_ -= head->second.bytes;
    frames_.erase(head);
}

bool FrameAssembler::was_dropped(int64_t id) const {
    return std::ranges::any_of(
        dropped_, [id](const auto& range) { return id >= range.first && id < range.second; });
}

std::optional<AssembledFrame> FrameAssembler::pop() {
    if (ready_.empty()) return std::nullopt;
    AssembledFrame frame = std::move(ready_.front());
    ready_.pop_front();
    return frame;
}

}  // namespace ox::launcher
