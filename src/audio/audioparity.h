#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct WirehairCodec_t;

/// Forward error correction of the audio stream: two repair symbols for each block of four frames;
/// any four of the six restore it. A symbol travels behind a 16-byte header in a media packet
/// flagged AUDIO_PARITY. Nothing here logs or throws.
namespace ox::audioparity {

inline constexpr size_t kDataFrames = 4;
inline constexpr size_t kRepairs = 2;
inline constexpr size_t kMaxShardBytes = 1146;  ///< of one symbol, and so of one frame
inline constexpr size_t kShardHeaderBytes = 16;
inline constexpr size_t kMaxRepairBytes = kShardHeaderBytes + kMaxShardBytes;
inline constexpr uint8_t kShardVersion = 1;

/// True for "1", "on", "true", "yes" and "enabled" in any case; false for anything else, also null.
bool parse_switch_value(const char* text) noexcept;

/// The switch in the environment variable OX_AUDIO_PARITY.
bool audio_parity_enabled() noexcept;

struct FreeCodec {
    void operator()(WirehairCodec_t* codec) const noexcept;
};
using Codec = std::unique_ptr<WirehairCodec_t, FreeCodec>;

enum class Guard : uint8_t {
    kOk = 0,
    kTruncated = 1,       ///< no buffer, or shorter than a header
    kBadBlockLen = 2,     ///< block length not 4
    kBadRepairCount = 3,  ///< repair count not 2
    kBadRepairIndex = 4,  ///< repair index above 1
    kBadVersion = 5,
    kBadShardLen = 6,    ///< outside 1 .. 1146, or other than the block's; also a frame to encode
    kBadOrigLen = 7,     ///< above the shard length, or other than the block's
    kBadPayloadLen = 8,  ///< missing, or other than the header's length
    kDuplicate = 9,      ///< the block already has this piece
    kBadIndex = 10,      ///< data index above 3
    kEncodeFailed = 11,  ///< null argument, or the encoder failed
    kDecodeFailed = 12,  ///< the pieces do not restore the block
};

/// The guard's name in lower_snake_case, "unknown" for any other value.
const char* guard_name(Guard guard) noexcept;

/// The header in front of a repair symbol, in wire layout (little-endian).
struct ShardHeader {
    uint16_t shard_len = 0;  ///< bytes of every symbol of the block: its longest frame
    uint8_t block_len = 0;
    uint8_t repair_count = 0;
    uint8_t repair_index = 0;
    uint8_t version = 0;
    uint16_t reserved = 0;
    std::array<uint16_t, kDataFrames> orig_len{};  ///< of each data frame, at most shard_len
};
static_assert(sizeof(ShardHeader) == kShardHeaderBytes);

/// The first check that fails: kTruncated, kBadVersion, kBadBlockLen, kBadRepairCount,
/// kBadRepairIndex, kBadShardLen, kBadOrigLen. Beyond kTruncated, `header` is filled in.
Guard parse_shard_header(const uint8_t* bytes, size_t length, ShardHeader& header) noexcept;

/// The same for a whole shard; kBadPayloadLen when its length is not the header's and the symbol's.
Guard parse_shard(const uint8_t* bytes, size_t length, ShardHeader& header) noexcept;

/// Encodes the repair shards of blocks; only the first block allocates. Used by one thread.
class BlockEncoder {
  public:
    /// Four frames of 1 to 1146 bytes into two buffers of at least 1162. kBadShardLen: a frame is
    /// missing or of a wrong length; kEncodeFailed: anything else.
    Guard encode(const uint8_t* const* data, const size_t* lens, uint8_t* const* out,
                 size_t* out_lens) noexcept;

  private:
    Codec codec_;
};

Guard encode_block(const uint8_t* const* data, const size_t* lens, uint8_t* const* out,
                   size_t* out_lens) noexcept;

/// The receiver's side of one block: rebuilds its lost frames. One thread.
class BlockDecoder {
  public:
    /// Takes a repair shard's header; the first is the reference. False for one with other lengths,
    /// or with lengths out of range.
    bool init_from(const ShardHeader& header) noexcept;

    /// Adds a data frame (index 0 .. 3) or a repair symbol without its header (index 0 .. 1).
    /// `header` is that of any of the block's repair shards and is checked as by `init_from`.
    Guard add(bool is_repair, uint8_t index, const ShardHeader& header, const uint8_t* payload,
              size_t length) noexcept;

    [[nodiscard]] bool have_all_sources() const noexcept;
    [[nodiscard]] bool can_recover() const noexcept;

    /// The four frames, and whether any was missing. kDecodeFailed when the pieces do not suffice.
    Guard recover(std::vector<std::vector<uint8_t>>& frames, bool& rebuilt) const noexcept;

  private:
    struct Piece {
        std::array<uint8_t, kMaxShardBytes> bytes{};  ///< padded with zeros to the shard length
        size_t length = 0;                            ///< as received
        bool present = false;
    };

    [[nodiscard]] Guard check_header(const ShardHeader& header) const noexcept;
    bool rebuild(std::vector<uint8_t>& message) const;

    bool initialised_ = false;
    ShardHeader reference_;
    std::array<Piece, kDataFrames + kRepairs> pieces_;  ///< data frames, then repair symbols
    size_t piece_count_ = 0;
};

}  // namespace ox::audioparity

namespace ox {

/// The sender's side: collects four frames, sequence numbers 4n to 4n + 3; a gap leaves a block
/// incomplete. One thread; allocates for the first block only.
class ParityBlock {
  public:
    /// Longest frame of a block that gets repair symbols.
    static constexpr size_t kMaxFitBytes = 1100;

    /// Adds the frame with this sequence number. True when it completed a block.
    bool add(uint32_t sequence, std::span<const uint8_t> frame, uint64_t timestamp);

    [[nodiscard]] bool fits() const { return fits_; }
    [[nodiscard]] uint32_t base() const { return base_; }
    [[nodiscard]] uint64_t last_timestamp() const { return last_timestamp_; }

    struct Shards {
        std::array<std::array<uint8_t, audioparity::kMaxRepairBytes>, audioparity::kRepairs>
            bytes{};
        std::array<size_t, audioparity::kRepairs> lengths{};
    };
    audioparity::Guard encode(Shards& out);

    void reset() { collected_ = 0; }

  private:
    audioparity::BlockEncoder encoder_;
    std::array<std::array<uint8_t, audioparity::kMaxShardBytes>, audioparity::kDataFrames> slots_{};
    std::array<size_t, audioparity::kDataFrames> lengths_{};
    uint32_t base_ = 0;
    uint64_t last_timestamp_ = 0;
    size_t collected_ = 0;
    bool fits_ = false;
};

}  // namespace ox
