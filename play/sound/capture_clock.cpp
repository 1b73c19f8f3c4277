#include "play/sound/capture_clock.h"

namespace ox::play {

namespace {

constexpr uint64_t kFrameUs = 5'000;
constexpr uint64_t kDecoderDelayUs = 2'500;  // the encoder's look-ahead
constexpr int64_t kRiseUs = 2;               // per frame: 400 ppm, more than clocks drift
constexpr int64_t kMaxLatenessUs = 60'000;
constexpr int kPauseFrames = 20;  // 100 ms

}  // namespace

std::optional<uint64_t> CaptureClock::end_us(const launcher::AudioFrame& frame) {
    if (!sequence_ && frame.timestamp == 0) return std::nullopt;
    time_ += sequence_ ? uint64_t{frame.sequence - *sequence_} * kFrameUs : frame.timestamp;
    sequence_ = frame.sequence;
    if (frame.timestamp != 0) {
        const auto lateness = static_cast<int64_t>(frame.timestamp - time_);
        late_frames_ = lateness > kMaxLatenessUs ? late_frames_ + 1 : 0;
        // All late: the recording paused.
        if (lateness < kRiseUs || late_frames_ >= kPauseFrames) {
            time_ = frame.timestamp;
            late_frames_ = 0;
        } else {
            time_ += uint64_t{kRiseUs};
        }
    }
    return time_ - kDecoderDelayUs;
}

}  // namespace ox::play
