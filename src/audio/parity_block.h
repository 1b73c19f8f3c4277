#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "audio/audioparity.h"

namespace ox {

/// Collects four consecutive audio frames, sequence numbers 4n to 4n + 3, for their repair symbols.
/// A gap inside a block leaves it incomplete. One thread; allocates nothing but for the first
/// block.
class ParityBlock {
  public:
    /// Longest frame of a block that gets repair symbols.
    static constexpr size_t kMaxFitBytes = 1100;

    /// Adds the frame with this sequence number. True when it completed a block.
    bool add(uint32_t sequence, std::span<const uint8_t> frame, uint64_t timestamp);

    /// All four frames of the complete block are short enough.
    [[nodiscard]] bool fits() const { return fits_; }
    /// First sequence number of the block.
    [[nodiscard]] uint32_t base() const { return base_; }
    /// Timestamp of the fourth frame.
    [[nodiscard]] uint64_t last_timestamp() const { return last_timestamp_; }

    /// Encodes the complete block's repair shards into `out`, with their lengths.
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
