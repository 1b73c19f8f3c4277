#include "video/encode_backlog.h"

#include <utility>

namespace ox {
namespace {

void store(std::span<const uint8_t> packet, bool keyframe, uint64_t timestamp, EncodedFrame& out) {
    out.data.assign(packet.begin(), packet.end());
    out.keyframe = keyframe;
    out.timestamp = timestamp;
}

}  // namespace

bool EncodeBacklog::pop(EncodedFrame& out) {
    if (kept_.empty()) return false;
    EncodedFrame& oldest = kept_.front();
    out.data = std::move(oldest.data);
    out.keyframe = oldest.keyframe;
    out.timestamp = oldest.timestamp;
    kept_.pop_front();
    return true;
}

bool EncodeBacklog::deliver(std::span<const uint8_t> packet, bool keyframe, uint64_t timestamp,
                            EncodedFrame& out) {
    if (out.data.empty()) {
        store(packet, keyframe, timestamp, out);
        return true;
    }
    if (kept_.size() >= kCapacity) return false;
    store(packet, keyframe, timestamp, kept_.emplace_back());
    return true;
}

}  // namespace ox
