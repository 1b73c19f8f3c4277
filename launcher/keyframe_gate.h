#pragma once

#include <cstdint>

namespace ox::launcher {

/// Keeps pictures that depend on a lost one away from the decoder, and says when to ask the agent
/// for a keyframe. Closed at the start and after every loss, opened by a keyframe. Pure; used by
/// one thread.
class KeyframeGate {
  public:
    /// Asking faster than the agent answers is noise.
    static constexpr uint64_t kRequestIntervalUs = 250'000;

    /// Media began to arrive. The first frame of a session is a keyframe without being asked for,
    /// so the first request waits for one interval.
    void on_start(uint64_t now_us) { next_request_ = now_us + kRequestIntervalUs; }

    /// The chain of pictures is broken.
    void on_loss() { open_ = false; }

    /// Whether the next frame in order can be decoded.
    bool admit(bool keyframe) {
        open_ = open_ || keyframe;
        return open_;
    }

    [[nodiscard]] bool is_open() const { return open_; }

    /// True when a keyframe is to be asked for now; counts as asked.
    bool take_request(uint64_t now_us) {
        if (open_ || now_us < next_request_) return false;
        next_request_ = now_us + kRequestIntervalUs;
        return true;
    }

  private:
    bool open_ = false;
    uint64_t next_request_ = UINT64_MAX;  ///< never before the start
};

}  // namespace ox::launcher
