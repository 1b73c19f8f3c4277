#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "launcher/client/media_packets.h"
#include "transport/packet.h"

namespace ox::launcher {

/// One access unit as it left the agent's encoder.
struct AssembledFrame {
    std::vector<uint8_t> data;  ///< Annex-B
    uint32_t frame_id = 0;      ///< the agent's frame number
    bool keyframe = false;      ///< a decoder can start here
    uint64_t timestamp = 0;     ///< capture time, agent's steady clock in us; 0 = not received
    uint64_t first_seen = 0;    ///< arrival of its first packet, own steady clock in us
    uint64_t completed = 0;     ///< arrival of the last packet it needed
    uint64_t lost_before = 0;   ///< frames lost between the previous delivered one and this
    bool damaged = false;       ///< depends on a lost one
};

/// Packets count when their frame is delivered or dropped; one that never arrived is one packet.
struct AssemblyCounters {
    uint64_t frames_complete = 0;
    uint64_t frames_repaired = 0;  ///< completed by parity
    uint64_t frames_lost = 0;
    uint64_t packets_expected = 0;   ///< data packets
    uint64_t packets_lost = 0;       ///< data packets not received
    uint64_t packets_recovered = 0;  ///< of these, rebuilt from parity
};

/// Reassembles frames from packets in any order and delivers them in order, as soon as their data
/// is received or rebuilt from parity. The oldest incomplete one is dropped when `reorder_frames`
/// later ones are complete, a later one began `reorder_us` ago, or memory runs out. Pure: time is
/// passed in. One thread.
class FrameAssembler {
  public:
    struct Limits {
        size_t reorder_frames = 2;
        uint64_t reorder_us = 15'000;
        size_t pending_frames = 64;                 ///< incomplete, or waiting for an earlier one
        size_t pending_bytes = 96UL * 1024 * 1024;  ///< above the format's largest frame
    };

    FrameAssembler() : FrameAssembler(Limits{}) {}
    explicit FrameAssembler(const Limits& limits) : limits_(limits) {}

    /// Adds one decrypted packet. Any header and any payload are safe to pass.
    PacketVerdict push(const PacketHeader& header, std::span<const uint8_t> payload,
                       uint64_t now_us);

    /// Drops frames whose time is over; call every few milliseconds.
    void expire(uint64_t now_us) { deliver_or_drop(now_us); }

    /// The next frame in order, if one is ready.
    std::optional<AssembledFrame> pop();

    /// Frames dropped since the last delivered one.
    [[nodiscard]] uint64_t lost_since_delivery() const { return lost_since_delivery_; }
    [[nodiscard]] const AssemblyCounters& counters() const { return counters_; }
    [[nodiscard]] size_t pending_frames() const { return frames_.size(); }
    [[nodiscard]] size_t pending_bytes() const { return bytes_; }

  private:
    struct Frame {
        uint16_t count = 0;  ///< data packets
        bool keyframe = false;
        uint64_t timestamp = 0;
        uint64_t first_seen = 0;
        uint64_t completed = 0;
        uint32_t arrived = 0;                      ///< data packets received
        uint32_t recovered = 0;                    ///< data packets rebuilt
        size_t last_size = 0;                      ///< bytes of the last data packet, once known
        size_t bytes = 0;                          ///< memory held
        std::vector<uint8_t> data;                 ///< grows up to count x 1162 bytes
        std::vector<bool> held;                    ///< per data packet
        std::vector<std::vector<uint8_t>> parity;  ///< per group, empty where none came

        [[nodiscard]] bool complete() const { return arrived + recovered == count; }
    };

    [[nodiscard]] int64_t unwrap(uint32_t frame_id);
    Frame* frame_for(int64_t id, const PacketHeader& header, uint64_t now_us);
    PacketVerdict add_data(Frame& frame, const PacketHeader& header,
                           std::span<const uint8_t> payload);
    PacketVerdict add_repair(Frame& frame, const PacketHeader& header,
                             std::span<const uint8_t> payload);
    void recover(Frame& frame, size_t group);
    uint8_t* slot(Frame& frame, size_t index);
    void deliver_or_drop(uint64_t now_us);
    [[nodiscard]] bool head_is_overdue(uint64_t now_us) const;
    void deliver_head();
    void drop_head();
    void erase_head();
    [[nodiscard]] bool was_dropped(int64_t id) const;

    Limits limits_;
    bool started_ = false;  ///< `next_` is set
    bool settled_ = false;  ///< a frame was delivered or dropped: `next_` only grows
    int64_t next_ = 0;      ///< number of the next frame to deliver, counted past 2^32
    std::map<int64_t, Frame> frames_;
    size_t bytes_ = 0;  ///< held by `frames_`
    uint64_t lost_since_delivery_ = 0;
    std::deque<std::pair<int64_t, int64_t>> dropped_;  ///< latest ranges, end exclusive
    std::deque<AssembledFrame> ready_;
    AssemblyCounters counters_;
};

}  // namespace ox::launcher
