#pragma once

#include <cstdint>

namespace ox {

/// Refuses input datagrams that were seen before or are 64 or more behind the newest. The 16-bit
/// sequence may wrap. Pure; one thread.
class ReplayWindow {
  public:
    /// True when `seq` is new; it then counts as seen.
    bool accept_sequence(uint16_t seq) {
        constexpr int kWindowBits = 64;
        if (!have_any_) {
            have_any_ = true;
            last_ = seq;
            window_ = 1;
            return true;
        }
        const auto ahead = static_cast<int16_t>(static_cast<uint16_t>(seq - last_));
        if (ahead > 0) {
            window_ = ahead < kWindowBits ? (window_ << ahead) | 1U : 1U;
            last_ = seq;
            return true;
        }
        const int behind = -ahead;
        if (behind >= kWindowBits) return false;
        const uint64_t bit = uint64_t{1} << behind;
        if ((window_ & bit) != 0) return false;
        window_ |= bit;
        return true;
    }

    void reset() { *this = {}; }

  private:
    uint16_t last_ = 0;    ///< newest accepted
    uint64_t window_ = 0;  ///< bit i: last_ - i was accepted
    bool have_any_ = false;
};

}  // namespace ox
