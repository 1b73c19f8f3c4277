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
#include "launcher/frame_assembler.h"
#include "transport/packet_header.h"

namespace ox::launcher {

/// One frame of sound as it left the agent's encoder.
struct AudioFrame {
    std::vector<uint8_t> opus;  ///< one Opus packet
    uint32_t sequence = 0;
    uint64_t timestamp = 0;    ///< time of sending, agent's steady clock in us; 0 = rebuilt
    uint64_t arrived = 0;      ///< own steady clock in us
    bool repaired = false;     ///< rebuilt from the block's repair symbols
    uint64_t lost_before = 0;  ///< frames given up between the previous delivered one and this
};

/// Counters since the start, in frames; one data packet carries one frame.
struct AudioCounters {
    uint64_t delivered = 0;
    uint64_t repaired = 0;  ///< of these, rebuilt
    uint64_t lost = 0;      ///< given up
};

/// Puts packets of sound back into their order, waits a short time for those that are missing, and
/// rebuilds lost ones of a block of four from its repair symbols. Pure: time is passed in, on one
/// clock that does not go back. Used by one thread.
class AudioAssembler {
  public:
    struct Limits {
        /// How long a missing frame is waited for once a later one has come. A block's repair
        /// symbols follow its first frame after 15 ms.
        uint64_t wait_us = 30'000;
        int64_t jump_frames = 400;  ///< a larger step ahead (2 s) is not bridged frame by frame
    };

    AudioAssembler() : AudioAssembler(Limits{}) {}
    explicit AudioAssembler(const Limits& limits) : limits_(limits) {}

    /// Takes one opened packet. Any header and any payload are safe to pass.
    PacketVerdict push(const PacketHeader& header, std::span<const uint8_t> payload,
                       uint64_t now_us);

    /// Gives up what has been waited for long enough; call every few milliseconds.
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
        std::array<std::vector<uint8_t>, audioparity::kRepairs> repairs;  ///< empty: not there
        std::optional<audioparity::ShardHeader> shard;
    };

    [[nodiscard]] int64_t unwrap(uint32_t sequence);
    PacketVerdict add_data(int64_t sequence, const PacketHeader& header,
                           std::span<const uint8_t> payload, uint64_t now_us);
    PacketVerdict add_repair(int64_t base, const PacketHeader& header,
                             std::span<const uint8_t> payload, uint64_t now_us);
    static void repair(Block& block, uint64_t now_us);
    Piece* piece_of(int64_t sequence);
    void settle(uint64_t now_us);
    [[nodiscard]] std::optional<int64_t> next_present();
    void deliver(Piece& piece);
    void give_up(int64_t until);
    void forget_settled_blocks();

    Limits limits_;
    bool started_ = false;             ///< `next_` is set
    int64_t next_ = 0;                 ///< sequence number to hand out next, counted past 2^32
    std::map<int64_t, Block> blocks_;  ///< by first sequence number; from `next_`'s block on
    uint64_t lost_since_delivery_ = 0;
    std::deque<int64_t> given_up_;  ///< latest sequence numbers
    std::deque<AudioFrame> ready_;
    AudioCounters counters_;
};

}  // namespace ox::launcher
