#pragma once

#include <cstddef>

namespace ox::play {

/// Decides how much sound the playout buffer holds and how fast it plays: a PI controller on the
/// buffer's mean level, whose integral part learns the drift between the two clocks. The target
/// follows the worst shortage seen: up at once, down by 0.25 ms a second after ten seconds. Pure;
/// used by one thread.
class LevelControl {
  public:
    static constexpr double kMinTargetMs = 20;
    static constexpr double kMaxTargetMs = 40;
    /// With sound ahead of the picture the target may rise to this.
    static constexpr double kMaxAlignedMs = 120;
    /// Speed correction while the level is within 5 ms of the target; 5000 ppm from 15 ms on.
    static constexpr double kUsualPpm = 1000;

    /// The buffer right after the device took sound, in ms.
    struct Level {
        double continuous;  ///< as if sound arrived sample by sample
        double least;       ///< what is there, less the reserve for fading out
    };

    void playing(const Level& level, double seconds);
    /// `missing_ms` are missing for the device. `arriving`: sound has arrived since that began.
    void starving(double missing_ms, bool arriving);
    /// Playing begins, for the first time or again, with the target's level.
    void restart();
    /// Sound and picture would coincide at this level; keeps them within 35 ms of each other.
    void align(double coincident_ms);
    void stop_aligning() { lowest_ = 0, highest_ = kMaxTargetMs; }

    /// Sound to drop now, in ms; 0 nearly always. The caller has dropped it before the next call.
    double take_excess();

    [[nodiscard]] double level_ms() const { return level_; }
    [[nodiscard]] double target_ms() const { return target_; }
    /// The source's clock against the device's; positive: the source is faster.
    [[nodiscard]] double drift_ppm() const { return drift_ppm_; }
    /// How much faster than nominal to play, in ppm.
    [[nodiscard]] double speed_ppm() const { return speed_ppm_; }

  private:
    void require(double ms);
    /// Returns the target's change in ms.
    double update_target();
    void update_speed(double error, double feed_forward, double seconds);
    void watch_excess(const Level& level, double seconds);

    double latest_ = kMinTargetMs;    ///< level
    double level_ = kMinTargetMs;     ///< low-passed
    double required_ = kMinTargetMs;  ///< by jitter
    double hold_seconds_ = 0;         ///< before it falls
    double lowest_ = 0;               ///< allowed by the picture
    double highest_ = kMaxTargetMs;
    double target_ = kMinTargetMs;
    double drift_ppm_ = 0;
    double speed_ppm_ = 0;
    double learned_seconds_ = 0;

    bool started_ = false;
    double silent_ms_ = 0;
    double shortage_ms_ = 0;
    double required_before_ = kMinTargetMs;  ///< the silence

    double window_seconds_ = 0;  ///< of the watch for excess
    double window_sum_ = 0;
    double window_least_ = 0;
    size_t window_pulls_ = 0;
    double excess_ = 0;
};

}  // namespace ox::play
