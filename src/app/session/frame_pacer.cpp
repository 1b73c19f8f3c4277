#include "app/session/frame_pacer.h"

namespace ox {
namespace {
constexpr int64_t kNanosPerSecond = 1'000'000'000;
constexpr int64_t kLateIntervals = 4;
}  // namespace

SteadyClock::time_point FramePacer::deadline(int64_t frame) const {
    const int64_t whole_seconds = frame / fps_;
    const int64_t rest = frame % fps_;
    return base_ + std::chrono::seconds(whole_seconds) +
           std::chrono::nanoseconds(rest * kNanosPerSecond / fps_);
}

SteadyClock::time_point FramePacer::next_deadline() {
    ++frames_;
    return deadline(frames_);
}

void FramePacer::arrived(SteadyClock::time_point now) {
    const auto limit = std::chrono::nanoseconds(kLateIntervals * kNanosPerSecond / fps_);
    if (now - deadline(frames_) > limit) reset(now);
}

void FramePacer::reset(SteadyClock::time_point now) {
    base_ = now;
    frames_ = 0;
}

}  // namespace ox
