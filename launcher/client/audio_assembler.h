#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "audio/audioparity.h"
#include "launcher/client/media_packets.h"
#include "transport/packet.h"

namespace ox::launcher {

/// One frame of sound as it left the agent's encoder.
struct AudioFrame {
    std::vector<uint8_t> opus;  ///< one Opus packet
    uint32_t sequence = 0;
    uint64_t timestamp = 0;    ///< time of sending, agent's steady clock in us; 0 = rebuilt
    uint64_t arrived = 0;      ///< own steady clock in us
    bool repaired = false;     ///< rebuilt from the block's repair symbols
    uint64_t lost_before = 0;  ///< frames lost between the previous delivered one and this
};

/// Totals in frames; one data packet carries one frame.
struct AudioCounters {
    uint64_t delivered = 0;
    uint64_t repaired = 0;  ///< of these, rebuilt
    uint64_t lost = 0;
};

/// Reorders packets of sound, waits briefly for missing ones, and rebuilds lost ones of a block of
/// four from its repair symbols. Pure: the caller passes monotonic time. Used by one thread.
class AudioAssembler {
  public:
    struct Limits {
        /// How long to wait for a missing frame after a later one arrived. A block's repair symbols
        /// follow its first frame after 15 ms.
        uint64_t wait_us = 30'000;
        int64_t jump_frames = 400;  ///< a larger step ahead (2 s) resets the assembler
    };

    AudioAssembler() : AudioAssembler(Limits{}) {}
    explicit AudioAssembler(const Limits& limits) : limits_(limits) {}

    /// Adds one decrypted packet. Any header and any payload are safe to pass.
    PacketVerdict push(const PacketHeader& header, std::span<const uint8_t> payload,
                       uint64_t now_us);

    /// Drops frames whose time is over; call every few milliseconds.
    void expire(uint64_t now_us);

    /// The next frame in order, if one is ready.
    std::optional<AudioFrame> pop();

    [[nodiscard]] const AudioCounters& counters() const { return counters_; }

  private:
    struct Piece {
        std::vector<uint8_t> bytes;
        uint64_t timestamp = 0;
        uint64_t arrived = 0;
        bool present = false;
        bool repaired = false;
    };
    /// Four frames, sequence numbers 4n to 4n + 3, and their repair symbols.
    struct Block {
        std::array<Piece, audioparity::kDataFrames> data;
        std::array<std::vector<uint8_t>, audioparity::kRepairs> repairs;  ///< empty: missing
        std::optional<audioparity::ShardHeader> shard;
    };

    [[nodiscard]] int64_t unwrap(uint32_t sequence);
    PacketVerdict add_data(int64_t sequence, const PacketHeader& header,
                           std::span<const uint8_t> payload, uint64_t now_us);
    PacketVerdict add_repair(int64_t base, const PacketHeader& header,
                             std::span<const uint8_t> payload, uint64_t now_us);
    static void repair(Block& block, uint64_t now_us);
    Piece* piece_of(int64_t sequence);
    void deliver_or_drop(uint64_t now_us);
    [[nodiscard]] std::optional<int64_t> next_present();
    void deliver(Piece& piece);
    void drop_until(int64_t end);
    void erase_old_blocks();

    Limits limits_;
    bool started_ = false;             ///< `next_` is set
    int64_t next_ = 0;                 ///< sequence number to deliver next, counted past 2^32
    std::map<int64_t, Block> blocks_;  ///< by first sequence number; from `next_`'s block on
    uint64_t lost_since_delivery_ = 0;
    std::deque<int64_t> dropped_;  ///< latest sequence numbers
    std::deque<AudioFrame> ready_;
    AudioCounters counters_;
};

}  // namespace ox::launcher
