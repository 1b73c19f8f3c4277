#include "audio/audioparity.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "fountain/wirehair.h"

namespace ox::audioparity {
namespace {

bool is_switch_word(std::string_view text) noexcept {
    constexpr std::array<std::string_view, 5> kWords{"1", "on", "true", "yes", "enabled"};
    return std::find(kWords.begin(), kWords.end(), text) != kWords.end();
}

bool is_shard_length(size_t length) noexcept {
    return length - 1 < kMaxShardBytes;
}

bool all_within_shard(const ShardHeader& header) noexcept {
    return std::all_of(header.orig_len.begin(), header.orig_len.end(),
                       [&](uint16_t length) { return length <= header.shard_len; });
}

}  // namespace

void FreeCodec::operator()(WirehairCodec codec) const noexcept {
    wirehair_free(codec);
}

bool parse_switch_value(const char* text) noexcept {
    if (text == nullptr) return false;
    std::array<char, 15> lower{};
    const size_t length = std::min(std::strlen(text), lower.size());
    std::transform(text, text + length, lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return is_switch_word({lower.data(), length});
}

bool audio_parity_enabled() noexcept {
    return parse_switch_value(std::getenv("OX_AUDIO_PARITY"));
}

const char* guard_name(Guard guard) noexcept {
    switch (guard) {
        case Guard::kOk:
            return "ok";
        case Guard::kTruncated:
            return "truncated";
        case Guard::kBadBlockLen:
            return "bad_block_len";
        case Guard::kBadRepairCount:
            return "bad_repair_count";
        case Guard::kBadRepairIndex:
            return "bad_repair_index";
        case Guard::kBadVersion:
            return "bad_version";
        case Guard::kBadShardLen:
            return "bad_shard_len";
        case Guard::kBadOrigLen:
            return "bad_orig_len";
        case Guard::kBadPayloadLen:
            return "bad_payload_len";
        case Guard::kDuplicate:
            return "duplicate";
        case Guard::kBadIndex:
            return "bad_index";
        case Guard::kEncodeFailed:
            return "encode_failed";
        case Guard::kDecodeFailed:
            return "decode_failed";
    }
    return "unknown";
}

Guard parse_shard_header(const uint8_t* bytes, size_t length, ShardHeader& header) noexcept {
    if (bytes == nullptr || length < kShardHeaderBytes) return Guard::kTruncated;
    std::memcpy(&header, bytes, kShardHeaderBytes);
    if (header.version != kShardVersion) return Guard::kBadVersion;
    if (header.block_len != kDataFrames) return Guard::kBadBlockLen;
    if (header.repair_count != kRepairs) return Guard::kBadRepairCount;
    if (header.repair_index >= kRepairs) return Guard::kBadRepairIndex;
    if (!is_shard_length(header.shard_len)) return Guard::kBadShardLen;
    if (!all_within_shard(header)) return Guard::kBadOrigLen;
    return Guard::kOk;
}

Guard parse_shard(const uint8_t* bytes, size_t length, ShardHeader& header) noexcept {
    const Guard guard = parse_shard_header(bytes, length, header);
    if (guard != Guard::kOk) return guard;
    return length == kShardHeaderBytes + header.shard_len ? Guard::kOk : Guard::kBadPayloadLen;
}

Guard encode_block(const uint8_t* const* data, const size_t* lens, uint8_t* const* out,
                   size_t* out_lens) noexcept {
    return BlockEncoder().encode(data, lens, out, out_lens);
}

Guard BlockEncoder::encode(const uint8_t* const* data, const size_t* lens, uint8_t* const* out,
                           size_t* out_lens) noexcept {
    if (data == nullptr || lens == nullptr) return Guard::kEncodeFailed;
    for (size_t i = 0; i < kDataFrames; ++i) {
        if (data[i] == nullptr || !is_shard_length(lens[i])) return Guard::kBadShardLen;
    }
    if (out == nullptr || out_lens == nullptr || out[0] == nullptr || out[1] == nullptr) {
        return Guard::kEncodeFailed;
    }
    if (wirehair_init() != Wirehair_Success) return Guard::kEncodeFailed;

    const size_t shard = *std::max_element(lens, lens + kDataFrames);
    ShardHeader header{.shard_len = static_cast<uint16_t>(shard),
                       .block_len = kDataFrames,
                       .repair_count = kRepairs,
                       .version = kShardVersion};
    std::array<uint8_t, kDataFrames * kMaxShardBytes> message{};
    for (size_t i = 0; i < kDataFrames; ++i) {
        std::memcpy(message.data() + i * shard, data[i], lens[i]);
        header.orig_len[i] = static_cast<uint16_t>(lens[i]);
    }
    const auto shard32 = static_cast<uint32_t>(shard);
    auto* const encoder =
        wirehair_encoder_create(codec_.get(), message.data(), kDataFrames * shard, shard32);
    if (encoder == nullptr) return Guard::kEncodeFailed;
    if (!codec_) codec_.reset(encoder);  // else it is the same one
    for (uint8_t repair = 0; repair < kRepairs; ++repair) {
        uint32_t written = 0;
        const WirehairResult result =
            wirehair_encode(encoder, uint32_t{kDataFrames} + repair,
                            out[repair] + kShardHeaderBytes, shard32, &written);
        if (result != Wirehair_Success || written != shard32) return Guard::kEncodeFailed;
        header.repair_index = repair;
        std::memcpy(out[repair], &header, kShardHeaderBytes);
    }
    out_lens[0] = out_lens[1] = kShardHeaderBytes + shard;
    return Guard::kOk;
}

Guard BlockDecoder::check_header(const ShardHeader& header) const noexcept {
    if (!is_shard_length(header.shard_len)) return Guard::kBadShardLen;
    if (!all_within_shard(header)) return Guard::kBadOrigLen;
    if (!initialised_) return Guard::kOk;
    if (header.shard_len != reference_.shard_len) return Guard::kBadShardLen;
    return header.orig_len == reference_.orig_len ? Guard::kOk : Guard::kBadOrigLen;
}

bool BlockDecoder::init_from(const ShardHeader& header) noexcept {
    if (check_header(header) != Guard::kOk) return false;
    if (!initialised_) reference_ = header;
    initialised_ = true;
    return true;
}

Guard BlockDecoder::add(bool is_repair, uint8_t index, const ShardHeader& header,
                        const uint8_t* payload, size_t length) noexcept {
    if (payload == nullptr || length == 0) return Guard::kBadPayloadLen;
    const Guard guard = check_header(header);
    if (guard != Guard::kOk) return guard;
    if (is_repair && index >= kRepairs) return Guard::kBadRepairIndex;
    if (!is_repair && index >= kDataFrames) return Guard::kBadIndex;
    Piece& piece = pieces_[is_repair ? kDataFrames + index : index];
    if (piece.present) return Guard::kDuplicate;
    const size_t shard = header.shard_len;
    if (is_repair ? length != shard : length > shard) return Guard::kBadPayloadLen;
    init_from(header);
    std::memcpy(piece.bytes.data(), payload, length);  // the rest is zero already
    piece.length = length;
    piece.present = true;
    ++piece_count_;
    return Guard::kOk;
}

bool BlockDecoder::have_all_sources() const noexcept {
    return std::all_of(pieces_.begin(), pieces_.begin() + kDataFrames,
                       [](const Piece& piece) { return piece.present; });
}

bool BlockDecoder::can_recover() const noexcept {
    return piece_count_ >= kDataFrames;
}

bool BlockDecoder::rebuild(std::vector<uint8_t>& message) const {
    const uint32_t shard = reference_.shard_len;
    message.resize(kDataFrames * shard);
    if (wirehair_init() != Wirehair_Success) return false;
    const Codec decoder(wirehair_decoder_create(nullptr, message.size(), shard));
    if (!decoder) return false;
    WirehairResult result = Wirehair_NeedMore;
    for (uint32_t id = 0; id < pieces_.size() && result == Wirehair_NeedMore; ++id) {
        if (!pieces_[id].present) continue;
        result = wirehair_decode(decoder.get(), id, pieces_[id].bytes.data(), shard);
    }
    return result == Wirehair_Success &&
           wirehair_recover(decoder.get(), message.data(), message.size()) == Wirehair_Success;
}

Guard BlockDecoder::recover(std::vector<std::vector<uint8_t>>& frames,
                            bool& rebuilt) const noexcept {
    rebuilt = false;
    frames.clear();
    try {
        if (have_all_sources()) {
            for (size_t i = 0; i < kDataFrames; ++i) {
                const auto begin = pieces_[i].bytes.begin();
                frames.emplace_back(begin, begin + static_cast<ptrdiff_t>(pieces_[i].length));
            }
            return Guard::kOk;
        }
        std::vector<uint8_t> message;
        if (!can_recover() || !rebuild(message)) return Guard::kDecodeFailed;
        for (size_t i = 0; i < kDataFrames; ++i) {
            const auto begin = message.begin() + static_cast<ptrdiff_t>(i * reference_.shard_len);
            frames.emplace_back(begin, begin + reference_.orig_len[i]);
        }
    } catch (const std::bad_alloc&) {
        frames.clear();
        return Guard::kDecodeFailed;
    }
    rebuilt = true;
    return Guard::kOk;
}

}  // namespace ox::audioparity

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
