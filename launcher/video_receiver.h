#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "launcher/frame_assembler.h"
#include "launcher/jitter_meter.h"
#include "launcher/keyframe_gate.h"
#include "launcher/lost_range.h"
#include "launcher/packet_counters.h"
#include "launcher/packet_opener.h"

namespace ox::launcher {

/// What the video stream has brought so far.
struct ReceiveStats : PacketCounters {
    uint64_t bytes = 0;  ///< of the opened packets' datagrams
    uint64_t keyframes = 0;
    uint64_t keyframe_requests = 0;  ///< made because of losses
    bool awaiting_keyframe = false;  ///< nothing can be decoded before one
    uint64_t frames_withheld = 0;    ///< arrived whole, but built on a lost one
    double jitter_ms = 0;
    AssemblyCounters assembly;
};

/// A keyframe must be asked for.
struct KeyframeRequest {
    std::optional<LostFrames> lost;  ///< which frames are missing, where that can be told
};

/// From datagrams to access units that can be decoded: opens, assembles, withholds what builds on a
/// lost picture, and decides when a keyframe must be asked for. Pure; used by one thread.
class VideoReceiver {
  public:
    struct Config {
        FrameAssembler::Limits limits;
        bool decode_damaged = false;  ///< after a loss, hand out what builds on it all the same
    };

    VideoReceiver(std::span<const uint8_t, PacketOpener::kKeyBytes> key, const Config& config)
        : opener_(key), assembler_(config.limits), decode_damaged_(config.decode_damaged) {}

    void on_datagram(std::span<const uint8_t> datagram, uint64_t now_us);
    /// Call every few milliseconds, also when nothing arrives.
    void on_time(uint64_t now_us) { assembler_.expire(now_us); }

    /// The next access unit for the decoder, in order. Ask until there is none, after each call
    /// of the functions above.
    std::optional<AssembledFrame> next_frame();

    /// The frame handed out last never reached the decoder.
    void on_frame_dropped() {
        gate_.on_loss();
        lost_.on_unknown_loss();
    }

    /// What to ask the agent for now, if anything; counts as asked.
    std::optional<KeyframeRequest> take_keyframe_request(uint64_t now_us);

    [[nodiscard]] const ReceiveStats& stats() const { return stats_; }

  private:
    PacketOpener opener_;
    FrameAssembler assembler_;
    KeyframeGate gate_;
    LostRange lost_;
    uint32_t last_assembled_ = 0;  ///< number of the last whole frame
    JitterMeter jitter_;
    bool decode_damaged_;
    bool seen_keyframe_ = false;
    ReceiveStats stats_;
};

}  // namespace ox::launcher
