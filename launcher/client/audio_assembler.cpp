#include "launcher/client/audio_assembler.h"

#include <algorithm>

namespace ox::launcher {

namespace {

using audioparity::kDataFrames;

constexpr size_t kDroppedKept = 64;
constexpr int64_t kBlock = kDataFrames;

int64_t base_of(int64_t sequence) {
    return sequence & ~(kBlock - 1);
}

bool is_repair(const PacketHeader& header) {
    return (header.flags & packet_flags::AUDIO_PARITY) != 0;
}

// Whether header and payload are consistent.
bool is_plausible(const PacketHeader& header, std::span<const uint8_t> payload) {
    if (header.stream != kStreamAudio || (header.flags & packet_flags::AUDIO) == 0) return false;
    if (!is_repair(header)) return header.index == 0 && header.count == 1 && !payload.empty();
    audioparity::ShardHeader shard;
    return header.count == kDataFrames && header.frame_id % kDataFrames == 0 &&
           audioparity::parse_shard(payload.data(), payload.size(), shard) ==
               audioparity::Guard::kOk &&
           shard.repair_index == header.index && std::ranges::count(shard.orig_len, 0) == 0;
}

}  // namespace

PacketVerdict AudioAssembler::push(const PacketHeader& header, std::span<const uint8_t> payload,
                                   uint64_t now_us) {
    if (!is_plausible(header, payload)) return PacketVerdict::Malformed;
    // The stream cannot start at a repair symbol: its block may be over.
    if (is_repair(header) && !started_) return PacketVerdict::Repair;
    const int64_t sequence = unwrap(header.frame_id);
    if (sequence >= next_ + limits_.jump_frames) {
        drop_until(base_of(sequence));
        blocks_.clear();
    }
    const PacketVerdict verdict = is_repair(header) ? add_repair(sequence, header, payload, now_us)
                                                    : add_data(sequence, header, payload, now_us);
    deliver_or_drop(now_us);
    return verdict;
}

// Sequence numbers wrap at 2^32: takes the number nearest to `next_`.
int64_t AudioAssembler::unwrap(uint32_t sequence) {
    if (!started_) {
        started_ = true;
        next_ = (int64_t{1} << 32) + sequence;  // one round up: going back never gets below zero
        return next_;
    }
    return next_ + static_cast<int32_t>(sequence - static_cast<uint32_t>(next_));
}

PacketVerdict AudioAssembler::add_data(int64_t sequence, const PacketHeader& header,
                                       std::span<const uint8_t> payload, uint64_t now_us) {
    // A late frame can still help to rebuild another one of its block.
    const bool late = sequence < next_;
    if (late && base_of(sequence) != base_of(next_))
        return std::ranges::count(dropped_, sequence) > 0 ? PacketVerdict::Late
                                                          : PacketVerdict::Duplicate;
    Block& block = blocks_[base_of(sequence)];
    Piece& piece = block.data[static_cast<size_t>(sequence - base_of(sequence))];
    if (piece.present) return PacketVerdict::Duplicate;
    piece = {.bytes = {payload.begin(), payload.end()},
             .timestamp = header.timestamp,
             .arrived = now_us,
             .present = true,
             .repaired = false};
    repair(block, now_us);
    return late ? PacketVerdict::Late : PacketVerdict::Data;
}

PacketVerdict AudioAssembler::add_repair(int64_t base, const PacketHeader& header,
                                         std::span<const uint8_t> payload, uint64_t now_us) {
    if (base + kBlock <= next_) return PacketVerdict::Repair;
    Block& block = blocks_[base];
    audioparity::ShardHeader shard;
    audioparity::parse_shard(payload.data(), payload.size(), shard);
    if (!block.shard) block.shard = shard;
    if (shard.shard_len != block.shard->shard_len || shard.orig_len != block.shard->orig_len)
        return PacketVerdict::Malformed;
    const auto symbol = payload.subspan(audioparity::kShardHeaderBytes);
    block.repairs[header.index].assign(symbol.begin(), symbol.end());
    repair(block, now_us);
    return PacketVerdict::Repair;
}

// Rebuilds the block's missing frames as soon as its pieces suffice.
void AudioAssembler::repair(Block& block, uint64_t now_us) {
    if (!block.shard) return;
    audioparity::BlockDecoder decoder;
    decoder.init_from(*block.shard);
    for (size_t i = 0; i < kDataFrames; ++i) {
        const Piece& piece = block.data[i];
        if (piece.present)
            decoder.add(false, static_cast<uint8_t>(i), *block.shard, piece.bytes.data(),
                        piece.bytes.size());
    }
    for (size_t i = 0; i < audioparity::kRepairs; ++i) {
        if (!block.repairs[i].empty())
            decoder.add(true, static_cast<uint8_t>(i), *block.shard, block.repairs[i].data(),
                        block.repairs[i].size());
    }
    if (decoder.have_all_sources() || !decoder.can_recover()) return;
    std::vector<std::vector<uint8_t>> frames;
    bool rebuilt = false;
    if (decoder.recover(frames, rebuilt) != audioparity::Guard::kOk) return;
    for (size_t i = 0; i < kDataFrames; ++i) {
        if (block.data[i].present) continue;
        block.data[i] = {.bytes = std::move(frames[i]),
                         .timestamp = 0,
                         .arrived = now_us,
                         .present = true,
                         .repaired = true};
    }
}

AudioAssembler::Piece* AudioAssembler::piece_of(int64_t sequence) {
    const auto block = blocks_.find(base_of(sequence));
    if (block == blocks_.end()) return nullptr;
    Piece& piece = block->second.data[static_cast<size_t>(sequence - block->first)];
    return piece.present ? &piece : nullptr;
}

std::optional<int64_t> AudioAssembler::next_present() {
    for (auto& [base, block] : blocks_) {
        for (int64_t i = 0; i < kBlock; ++i) {
            if (base + i >= next_ && block.data[static_cast<size_t>(i)].present) return base + i;
        }
    }
    return std::nullopt;
}

void AudioAssembler::deliver_or_drop(uint64_t now_us) {
    for (;;) {
        if (Piece* piece = piece_of(next_)) {
            deliver(*piece);
            continue;
        }
        const auto later = next_present();
        if (!later || now_us < piece_of(*later)->arrived + limits_.wait_us) break;
        drop_until(*later);
    }
    erase_old_blocks();
}

void AudioAssembler::expire(uint64_t now_us) {
    if (started_) deliver_or_drop(now_us);
}

void AudioAssembler::deliver(Piece& piece) {
    ++counters_.delivered;
    if (piece.repaired) ++counters_.repaired;
    ready_.push_back({.opus = piece.bytes,
                      .sequence = static_cast<uint32_t>(next_),
                      .timestamp = piece.timestamp,
                      .arrived = piece.arrived,
                      .repaired = piece.repaired,
                      .lost_before = lost_since_delivery_});
    lost_since_delivery_ = 0;
    ++next_;
}

void AudioAssembler::drop_until(int64_t end) {
    const auto frames = static_cast<uint64_t>(end - next_);
    counters_.lost += frames;
    lost_since_delivery_ += frames;
    for (int64_t i = std::max(next_, end - static_cast<int64_t>(kDroppedKept)); i < end; ++i)
        dropped_.push_back(i);
    while (dropped_.size() > kDroppedKept)
        dropped_.pop_front();
    next_ = end;
}

void AudioAssembler::erase_old_blocks() {
    blocks_.erase(blocks_.begin(), blocks_.lower_bound(base_of(next_)));
}

std::optional<AudioFrame> AudioAssembler::pop() {
    if (ready_.empty()) return std::nullopt;
    AudioFrame frame = std::move(ready_.front());
    ready_.pop_front();
    return frame;
}

}  // namespace ox::launcher
