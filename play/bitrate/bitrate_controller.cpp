#include "play/bitrate/bitrate_controller.h"

#include <algorithm>
#include <cmath>

namespace ox::play {
namespace {

constexpr uint64_t kSecondUs = 1'000'000;
constexpr uint64_t kLeastGapUs = 2 * kSecondUs;
/// As long as the burst rate looks back: what it says is then of the present path.
constexpr uint64_t kCleanUs = 3 * kSecondUs / 2;
constexpr uint64_t kConfirmUs = 150'000;
constexpr double kWorthwhile = 0.15;
constexpr double kLongQueueMs = 60;
constexpr double kShortQueueMs = 25;
constexpr double kNoQueueMs = 15;
constexpr double kFlowing = 0.75;
constexpr double kMuchLost = 0.10;
constexpr double kLittleLost = 0.05;
/// Below this share of the bitrate the picture does not need it.
constexpr double kStill = 0.6;
/// Share of the path's rate to use: headers and parity come on top.
constexpr double kUsable = 0.85;
/// The same where that rate is uncertain: jitter rather hides than feigns it.
constexpr double kLikely = 0.95;
constexpr double kCautious = 0.92;
constexpr double kLargeStep = 1.5;
constexpr double kMediumStep = 1.3;
constexpr double kSmallStep = 1.2;
constexpr int kCarefulRaises = 2;
constexpr double kAmpleKbps = 8'000;
/// Packets that arrive in clumps look like a path so much faster, and prove less.
constexpr double kClumped = 10;
constexpr uint64_t kTryAgainUs = 20 * kSecondUs;
/// A burst rate so much above the former one: the path is another.
constexpr double kPathChanged = 1.4;
constexpr double kLeastForDecoding = 2000;
/// A raise that is followed by congestion within this time has failed.
constexpr uint64_t kTrialUs = 5 * kSecondUs;
constexpr uint64_t kFirstHoldUs = 4 * kSecondUs;
constexpr uint64_t kLongestHoldUs = 32 * kSecondUs;
/// The same where only another try can tell that the path has become faster.
constexpr uint64_t kLongestHiddenHoldUs = 4 * kSecondUs;

}  // namespace

BitrateController::BitrateController(uint32_t start_kbps, Limits limits)
    : limits_(limits), target_kbps_(std::clamp(start_kbps, limits.least_kbps, limits.most_kbps)) {}

std::optional<uint32_t> BitrateController::update(const PathSample& sample) {
    if (sample.received_kbps <= 0) return std::nullopt;
    const uint64_t now = sample.at_us;
    decode_ms_ += (sample.decode_ms - decode_ms_) / 4;
    const bool slow = decode_ms_ > sample.frame_interval_ms && target_kbps_ > kLeastForDecoding;
    const bool congested = is_congested(sample);
    const bool clean = !congested && sample.queue_ms < kNoQueueMs && sample.lost < kLittleLost &&
                       decode_ms_ < 0.7 * sample.frame_interval_ms;
    if (!clean) clean_since_us_.reset();
    if (clean && !clean_since_us_) clean_since_us_ = now;
    const uint64_t clean_us = clean ? now - *clean_since_us_ : 0;
    if (clean_us < kCleanUs / 2) {
        burst_kbps_ = sample.burst_kbps;
        burst_high_kbps_ = sample.burst_high_kbps;
    }
    burst_high_kbps_ += (sample.burst_high_kbps - burst_high_kbps_) / 4;
    burst_kbps_ += (sample.burst_kbps - burst_kbps_) / 4;
    if (!congested) congested_since_us_.reset();
    if (congested && !congested_since_us_) congested_since_us_ = now;
    if (changed_us_ && now - *changed_us_ < kLeastGapUs) return std::nullopt;

    // A path that was held up for a moment is not slow.
    if (congested && now - *congested_since_us_ < kConfirmUs) return std::nullopt;
    if (congested || slow) {
        remember_failure(now, sample.burst_hidden);
        return change_to(
            congested ? reduced(sample) : std::max(target_kbps_ / kSmallStep, kLeastForDecoding),
            sample);
    }
    // What does not arrive as it was sent is about to queue up.
    const bool flows = sample.received_kbps > kFlowing * sample.sent_kbps;
    if (clean_us < kCleanUs || is_still(sample) || !flows) return std::nullopt;
    return change_to(raised(sample), sample);
}

bool BitrateController::is_still(const PathSample& sample) const {
    return sample.sent_kbps < kStill * target_kbps_;
}

bool BitrateController::is_congested(const PathSample& sample) const {
    // A little that arrives as it was sent is not what fills the queue.
    const bool arrives = sample.received_kbps > 0.75 * sample.sent_kbps && sample.lost < kMuchLost;
    if (is_still(sample) && arrives) return false;
    return sample.queue_ms > kLongQueueMs || sample.lost > kMuchLost ||
           (sample.lost > kLittleLost && sample.queue_ms > kShortQueueMs);
}

double BitrateController::reduced(const PathSample& sample) const {
    const double target = target_kbps_;
    // The longer the queue, the more has to be left free for it to drain.
    const double share = std::clamp(0.9 - sample.queue_ms / 1000, 0.6, kUsable);
    const double next = share * std::min(sample.received_kbps, target);
    const bool queued = sample.queue_ms > kShortQueueMs;
    return is_still(sample) && !queued ? std::max(next, 0.5 * target) : next;
}

double BitrateController::raised(const PathSample& sample) const {
    const double target = target_kbps_;
    const double worthwhile = (1 + kWorthwhile) * target;
    const bool was_too_much =
        ceiling_kbps_ > 0 && sample.burst_low_kbps < kPathChanged * ceiling_burst_kbps_;
    if (was_too_much && sample.at_us < ceiling_until_us_) {
        return std::max(target, std::min(kMediumStep * target, kUsable * ceiling_kbps_));
    }
    if (burst_kbps_ <= 0) return kMediumStep * target;  // too few packets to tell
    if (sample.burst_hidden) {
        if (was_too_much) return kSmallStep * target;
        const bool careful = raises_ < kCarefulRaises || target > kAmpleKbps;
        return (careful ? kMediumStep : kLargeStep) * target;
    }
    const double likely = std::min(kLikely * burst_kbps_, kCautious * burst_high_kbps_);
    const double room = std::max(kUsable * sample.burst_low_kbps, likely);
    if (room >= worthwhile) {
        const bool clumped = room > kClumped * target;
        return std::min((clumped || was_too_much ? kMediumStep : kLargeStep) * target, room);
    }
    const bool long_ago = !changed_us_ || sample.at_us - *changed_us_ >= kTryAgainUs;
    return long_ago && kUsable * sample.burst_high_kbps >= worthwhile ? kSmallStep * target
                                                                      : target;
}

void BitrateController::remember_failure(uint64_t now_us, bool hidden) {
    if (raised_us_ && now_us - *raised_us_ < kTrialUs) {
        ceiling_hold_us_ = std::clamp(2 * ceiling_hold_us_, kFirstHoldUs,
                                      hidden ? kLongestHiddenHoldUs : kLongestHoldUs);
        ceiling_until_us_ = now_us + ceiling_hold_us_;
        ceiling_kbps_ = target_kbps_;
        ceiling_burst_kbps_ = raised_burst_kbps_;
    }
    raised_us_.reset();
}

std::optional<uint32_t> BitrateController::change_to(double kbps, const PathSample& sample) {
    const auto next = static_cast<uint32_t>(
        std::lround(std::clamp<double>(kbps, limits_.least_kbps, limits_.most_kbps)));
    if (std::abs(static_cast<double>(next) - target_kbps_) < kWorthwhile * target_kbps_) {
        return std::nullopt;
    }
    raises_ = next > target_kbps_ ? raises_ + 1 : 0;
    if (next > target_kbps_) {
        raised_us_ = sample.at_us;
        raised_burst_kbps_ = sample.burst_low_kbps;
        if (target_kbps_ > ceiling_kbps_) {
            ceiling_kbps_ = 0;  // outlived
            ceiling_hold_us_ = 0;
        }
    }
    target_kbps_ = next;
    changed_us_ = sample.at_us;
    clean_since_us_.reset();
    return next;
}

}  // namespace ox::play
