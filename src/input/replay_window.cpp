#include "input/replay_window.h"

namespace ox {

bool ReplayWindow::accept_sequence(uint16_t seq) {
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

}  // namespace ox
