#pragma once

#include <cstdint>
#include <optional>

#include "play/bitrate/path_meter.h"

namespace ox::play {

/// Chooses the video bitrate. Every change costs a keyframe, so changes are few, worthwhile (15 %)
/// and at least two seconds apart. Pure; one thread.
///
/// Down at once when packets queue up, when many are lost or when the decoder cannot keep pace;
/// below what arrives meanwhile, so that the queue drains. Up by steps, after a second in which all
/// was well, as far as the spacing of each picture's packets shows room. Where it does not tell, a
/// small step is tried, and one that fails is not repeated for a while.
class BitrateController {
  public:
    struct Limits {
        uint32_t least_kbps = 500;
        uint32_t most_kbps = 50'000;
    };

    BitrateController(uint32_t start_kbps, Limits limits);

    /// The bitrate to ask for now, if it is to change.
    std::optional<uint32_t> update(const PathSample& sample);

    [[nodiscard]] uint32_t target_kbps() const { return target_kbps_; }

  private:
    [[nodiscard]] bool is_still(const PathSample& sample) const;
    [[nodiscard]] bool is_congested(const PathSample& sample) const;
    [[nodiscard]] double reduced(const PathSample& sample) const;
    [[nodiscard]] double raised(const PathSample& sample) const;
    void remember_failure(uint64_t now_us, bool hidden);
    std::optional<uint32_t> change_to(double kbps, const PathSample& sample);

    Limits limits_;
    uint32_t target_kbps_;
    double decode_ms_ = 0;   ///< smoothed
    double burst_kbps_ = 0;  ///< smoothed, like the next
    double burst_high_kbps_ = 0;
    std::optional<uint64_t> changed_us_;
    std::optional<uint64_t> congested_since_us_;
    std::optional<uint64_t> clean_since_us_;
    int raises_ = 0;  ///< since the bitrate was last lowered
    // The latest raise:
    std::optional<uint64_t> raised_us_;
    double raised_burst_kbps_ = 0;
    // A raise that failed:
    double ceiling_kbps_ = 0;  ///< 0: none
    double ceiling_burst_kbps_ = 0;
    uint64_t ceiling_hold_us_ = 0;
    uint64_t ceiling_until_us_ = 0;
};

}  // namespace ox::play
