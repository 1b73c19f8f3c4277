#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "launcher/client/feedback_packets.h"
#include "launcher/client/frame_assembler.h"
#include "launcher/client/media_packets.h"
#include "launcher/client/timing_stats.h"

namespace ox::launcher {

/// Withholds pictures that depend on a lost one and schedules keyframe requests. Closed at the
/// start and after every loss, opened by a keyframe. Pure; used by one thread.
class KeyframeGate {
  public:
    /// More than the time in which an agent answers.
    static constexpr uint64_t kRequestIntervalUs = 250'000;

    /// Media began to arrive, with a keyframe: the first request waits for one interval.
    void on_start(uint64_t now_us) { next_request_ = now_us + kRequestIntervalUs; }

    void on_loss() { open_ = false; }

    bool admit(bool keyframe) {
        open_ = open_ || keyframe;
        return open_;
    }

    [[nodiscard]] bool is_open() const { return open_; }

    /// True when a keyframe is to be requested now, which then counts as done.
    bool take_request(uint64_t now_us) {
        if (open_ || now_us < next_request_) return false;
        next_request_ = now_us + kRequestIntervalUs;
        return true;
    }

  private:
    bool open_ = false;
    uint64_t next_request_ = UINT64_MAX;  ///< never before the start
};

/// Frames lost since the last decodable one, for requests that an agent accepts. Pure; one thread.
class LostRange {
  public:
    void on_intact(uint32_t frame_id) {
        last_good_ = frame_id;
        newest_lost_.reset();
        attempts_ = 0;
    }
    /// Frames are lost up to this one.
    void on_lost(uint32_t frame_id) { newest_lost_ = frame_id; }
    void on_unknown_loss() { last_good_.reset(); }

    /// The next request about the current loss. Nothing when a plain keyframe request is needed: no
    /// reference frame, too much lost, or three attempts made.
    std::optional<LostFrames> next_request() {
        constexpr uint32_t kMaxFrames = 255;
        constexpr uint8_t kMaxAttempts = 3;
        if (!last_good_ || !newest_lost_ || attempts_ == kMaxAttempts) return std::nullopt;
        const uint32_t first = *last_good_ + 1;
        // Frame 0 and a wrap of the numbers cannot be referred to.
        if (*last_good_ == 0 || *newest_lost_ < first || *newest_lost_ - first >= kMaxFrames)
            return std::nullopt;
        return LostFrames{.last_delivered = *last_good_,
                          .first_missing = first,
                          .last_missing = *newest_lost_,
                          .attempt = attempts_++};
    }

  private:
    std::optional<uint32_t> last_good_;
    std::optional<uint32_t> newest_lost_;
    uint8_t attempts_ = 0;
};

/// Totals of the video stream.
struct ReceiveStats : PacketCounters {
    uint64_t bytes = 0;  ///< of decrypted packets' datagrams
    uint64_t keyframes = 0;
    uint64_t keyframe_requests = 0;  ///< after losses
    bool awaiting_keyframe = false;  ///< nothing can be decoded before one
    uint64_t frames_withheld = 0;    ///< complete, but dependent on a lost one
    double jitter_ms = 0;
    AssemblyCounters assembly;
};

struct KeyframeRequest {
    std::optional<LostFrames> lost;  ///< the missing frames, if known
};

/// From datagrams to decodable access units, with keyframe requests. Pure; one thread.
class VideoReceiver {
  public:
    struct Config {
        FrameAssembler::Limits limits;
        bool decode_damaged = false;  ///< withhold nothing after a loss
    };

    VideoReceiver(std::span<const uint8_t, PacketOpener::kKeyBytes> key, const Config& config)
        : opener_(key), assembler_(config.limits), decode_damaged_(config.decode_damaged) {}

    /// The header of the packet in it; nothing when it could not be decrypted.
    std::optional<PacketHeader> on_datagram(std::span<const uint8_t> datagram, uint64_t now_us);
    /// Call every few milliseconds, also when nothing arrives.
    void on_time(uint64_t now_us) { assembler_.expire(now_us); }

    /// Call until it returns none, after each call of the functions above.
    std::optional<AssembledFrame> next_frame();

    /// The last frame of `next_frame` did not reach the decoder.
    void on_frame_dropped() {
        gate_.on_loss();
        lost_.on_unknown_loss();
    }

    /// A request that is to be sent now, if any, which then counts as sent.
    std::optional<KeyframeRequest> take_keyframe_request(uint64_t now_us);

    [[nodiscard]] const ReceiveStats& stats() const { return stats_; }

  private:
    PacketOpener opener_;
    FrameAssembler assembler_;
    KeyframeGate gate_;
    LostRange lost_;
    uint32_t last_assembled_ = 0;  ///< number of the last complete frame
    JitterMeter jitter_;
    bool decode_damaged_;
    bool seen_keyframe_ = false;
    ReceiveStats stats_;
};

}  // namespace ox::launcher
