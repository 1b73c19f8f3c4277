#include "play/sound/level_control.h"

#include <algorithm>
#include <cmath>

namespace ox::play {

namespace {

constexpr double kMarginMs = 2;
constexpr double kFallMsPerSecond = 0.25;
constexpr double kHoldSeconds = 10;
constexpr double kSameMs = 1;
constexpr double kPauseMs = 500;  // silence of the source, not a late packet
constexpr double kAlignedMs = 35;

constexpr double kLevelSeconds = 1;  // low pass
constexpr double kPpmPerMs = 200;    // 0.2 rad/s
// Critically damped at first, to learn the drift. Later a step of the level, as an underrun of the
// device itself makes, must not pass for drift.
constexpr double kFirstPpmPerMsSecond = 10;
constexpr double kPpmPerMsSecond = 2;
constexpr double kLearningSeconds = 120;
constexpr double kMaxDriftPpm = 800;
constexpr double kNearMs = 5;
constexpr double kFarMs = 15;
constexpr double kFarPpm = 5000;
constexpr double kMaxPpmPerSecond = 10'000;

constexpr double kWindowSeconds = 0.5;
constexpr double kCrossfadeMs = 5;

}  // namespace

void LevelControl::playing(const Level& level, double seconds) {
    latest_ = level.continuous;
    level_ += (level.continuous - level_) * std::min(1.0, seconds / kLevelSeconds);
    hold_seconds_ -= seconds;
    if (hold_seconds_ < 0)
        required_ = std::max(required_ - kFallMsPerSecond * seconds, kMinTargetMs);
    require(level_ - level.least + kMarginMs);
    const double change = update_target();
    // A target that falls slowly needs its own speed, which must not pass for drift.
    const double feed_forward = std::clamp(-change / seconds * 1000, 0.0, kUsualPpm / 2);
    update_speed(level_ - target_, feed_forward, seconds);
    watch_excess(level, seconds);
}

void LevelControl::starving(double missing_ms, bool arriving) {
    if (!started_) return;
    if (silent_ms_ == 0) required_before_ = required_;
    silent_ms_ += missing_ms;
    if (silent_ms_ > kPauseMs) {
        required_ = required_before_;
    } else if (!arriving) {
        shortage_ms_ += missing_ms;
        require(level_ + shortage_ms_ + kMarginMs);
    }
    update_target();
}

void LevelControl::restart() {
    started_ = true;
    level_ = target_;
    silent_ms_ = shortage_ms_ = 0;
    window_seconds_ = excess_ = 0;
    speed_ppm_ = drift_ppm_;
}

void LevelControl::align(double coincident_ms) {
    lowest_ = std::min(coincident_ms - kAlignedMs, kMaxAlignedMs);
    highest_ = std::max(coincident_ms + kAlignedMs, kMinTargetMs);
}

double LevelControl::take_excess() {
    const double excess = excess_;
    if (excess > 0) level_ = latest_ - excess;
    excess_ = 0;
    return excess;
}

void LevelControl::require(double ms) {
    if (ms > required_ - kSameMs) hold_seconds_ = kHoldSeconds;
    required_ = std::clamp(ms, required_, kMaxTargetMs);
}

double LevelControl::update_target() {
    const double before = target_;
    target_ = std::max(std::min(required_, highest_), lowest_);
    return target_ - before;
}

void LevelControl::update_speed(double error, double feed_forward, double seconds) {
    const double distance = std::abs(error);
    learned_seconds_ += seconds;
    if (distance < kNearMs) {
        const double learning = std::max(1 - learned_seconds_ / kLearningSeconds, 0.0);
        const double gain = std::lerp(kPpmPerMsSecond, kFirstPpmPerMsSecond, learning);
        drift_ppm_ = std::clamp(drift_ppm_ + gain * error * seconds, -kMaxDriftPpm, kMaxDriftPpm);
    }
    const double far = std::clamp((distance - kNearMs) / (kFarMs - kNearMs), 0.0, 1.0);
    const double limit = kUsualPpm + far * (kFarPpm - kUsualPpm);
    const double wanted = std::clamp(kPpmPerMs * error + drift_ppm_ + feed_forward, -limit, limit);
    const double step = kMaxPpmPerSecond * seconds;
    speed_ppm_ = std::clamp(wanted, speed_ppm_ - step, speed_ppm_ + step);
}

// A window's mean that is far above the target is delay that stays, not a burst that made up for
// lateness. Correcting it by speed would take long.
void LevelControl::watch_excess(const Level& level, double seconds) {
    if (window_seconds_ == 0) {
        window_sum_ = 0;
        window_pulls_ = 0;
        window_least_ = level.least;
    }
    window_seconds_ += seconds;
    window_sum_ += level.continuous;
    ++window_pulls_;
    window_least_ = std::min(window_least_, level.least);
    if (window_seconds_ < kWindowSeconds) return;
    window_seconds_ = 0;
    const double excess = window_sum_ / static_cast<double>(window_pulls_) - target_;
    if (excess > kFarMs) excess_ = std::clamp(window_least_ - kCrossfadeMs, 0.0, excess);
}

}  // namespace ox::play
