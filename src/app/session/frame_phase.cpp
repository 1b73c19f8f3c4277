#include "app/session/frame_phase.h"

#include <algorithm>
#include <complex>
#include <cstdlib>
#include <numbers>

namespace ox {
namespace {

using std::chrono::nanoseconds;

constexpr int64_t kNanosPerSecond = 1'000'000'000;
/// A picture counts as complete this long after its reported change. Also absorbs the jitter of
/// the sleep and of the source.
constexpr nanoseconds kMargin{500'000};
constexpr nanoseconds kRecent{kNanosPerSecond};
constexpr size_t kMinChanges = 16;       // needed to find a rhythm
constexpr int kMaxStepDivisor = 128;     // of an interval
constexpr int64_t kMinGainDivisor = 64;  // of an interval, for the mean wait
constexpr double kMinCoherence = 0.4;    // mean resultant length of phases with a common direction

}  // namespace

FramePhase::FramePhase(uint32_t fps) : interval_(kNanosPerSecond / fps) {}

void FramePhase::changed(SteadyClock::time_point at) {
    changes_[count_++ % kKept] = at;
}

size_t FramePhase::measure_waits(SteadyClock::time_point deadline) {
    const uint64_t kept = std::min<uint64_t>(count_, kKept);
    size_t recent = 0;
    span_ = 0;
    for (uint64_t i = count_ - kept; i < count_; ++i) {
        const auto age = deadline - changes_[i % kKept];
        if (age > kRecent) continue;
        span_ = std::max(span_, std::chrono::duration_cast<nanoseconds>(
                                    changes_[(count_ - 1) % kKept] - changes_[i % kKept])
                                    .count());
        const int64_t wait =
            std::chrono::duration_cast<nanoseconds>(age - kMargin).count() % interval_;
        waits_[recent++] = wait < 0 ? wait + interval_ : wait;
    }
    return recent;
}

bool FramePhase::drifts_too_fast(size_t changes) const {
    const double to_angle = 2 * std::numbers::pi / static_cast<double>(interval_);
    const size_t half = changes / 2;
    std::array<std::complex<double>, 2> directions{};
    for (size_t i = 0; i < 2 * half; ++i)
        directions[i / half] += std::polar(1.0, static_cast<double>(waits_[i]) * to_angle);
    const double min_length = kMinCoherence * static_cast<double>(half);
    if (std::abs(directions[0]) < min_length || std::abs(directions[1]) < min_length) return false;
    const double moved = std::arg(directions[1] * std::conj(directions[0])) / to_angle;
    // Between the middles of the two halves.
    const double frames = static_cast<double>(span_) / 2 / static_cast<double>(interval_);
    return std::abs(moved) > frames * static_cast<double>(interval_) / kMaxStepDivisor;
}

int64_t FramePhase::total_wait(size_t changes, int64_t earlier) const {
    int64_t total = 0;
    for (size_t i = 0; i < changes; ++i)
        total += waits_[i] - earlier + (waits_[i] < earlier ? interval_ : 0);
    return total;
}

nanoseconds FramePhase::step(SteadyClock::time_point deadline) {
    const size_t changes = measure_waits(deadline);
    if (changes < kMinChanges || drifts_too_fast(changes)) return {};
    const int64_t limit = interval_ / kMaxStepDivisor;
    return nanoseconds(std::clamp(best_move(changes), -limit, limit));
}

int64_t FramePhase::best_move(size_t changes) const {
    // Earlier deadlines shorten the mean wait until one passes a change, so the best phase has a
    // deadline right at one of them.
    std::array<int64_t, kKept> totals{};
    for (size_t i = 0; i < changes; ++i)
        totals[i] = total_wait(changes, waits_[i]);
    const int64_t best =
        *std::min_element(totals.begin(), totals.begin() + static_cast<ptrdiff_t>(changes));
    const int64_t good = best + interval_ / kMinGainDivisor * static_cast<int64_t>(changes);
    if (total_wait(changes, 0) <= good) return 0;
    // The nearest of the good ones, so that the phase does not oscillate between two equal ones.
    int64_t nearest = interval_;
    for (size_t i = 0; i < changes; ++i) {
        if (totals[i] > good) continue;
        const int64_t move = waits_[i] <= interval_ / 2 ? -waits_[i] : interval_ - waits_[i];
        if (std::abs(move) < std::abs(nearest)) nearest = move;
    }
    return nearest;
}

}  // namespace ox
