#include "audio/parity_block.h"

#include <algorithm>

namespace ox {

bool ParityBlock::add(uint32_t sequence, std::span<const uint8_t> frame, uint64_t timestamp) {
    const size_t slot = sequence % audioparity::kDataFrames;
    if (slot == 0) {
        base_ = sequence;
        collected_ = 0;
        fits_ = false;
    }
    const bool follows = slot == collected_ && sequence - base_ == slot;
    if (!follows || frame.empty() || frame.size() > audioparity::kMaxShardBytes) return false;
    std::copy(frame.begin(), frame.end(), slots_[slot].begin());
    lengths_[slot] = frame.size();
    last_timestamp_ = timestamp;
    if (++collected_ < audioparity::kDataFrames) return false;
    fits_ = *std::max_element(lengths_.begin(), lengths_.end()) <= kMaxFitBytes;
    return true;
}

audioparity::Guard ParityBlock::encode(Shards& out) {
    std::array<const uint8_t*, audioparity::kDataFrames> data{};
    std::transform(slots_.begin(), slots_.end(), data.begin(),
                   [](const auto& slot) { return slot.data(); });
    std::array<uint8_t*, audioparity::kRepairs> shards{};
    std::transform(out.bytes.begin(), out.bytes.end(), shards.begin(),
                   [](auto& bytes) { return bytes.data(); });
    return encoder_.encode(data.data(), lengths_.data(), shards.data(), out.lengths.data());
}

}  // namespace ox
