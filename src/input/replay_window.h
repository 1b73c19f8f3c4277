#pragma once

#include <cstdint>

namespace ox {

/// Refuses input datagrams that were seen before or are 64 or more behind the newest. The 16-bit
/// sequence may wrap. Pure; one thread.
class ReplayWindow {
  public:
    /// True when `seq` is new; it then counts as seen.
    bool accept_sequence(uint16_t seq);

    /// Forgets everything: the next sequence starts a new window.
    void reset() { *this = {}; }

  private:
    uint16_t last_ = 0;    ///< newest accepted
    uint64_t window_ = 0;  ///< bit i: last_ - i was accepted
    bool have_any_ = false;
};

}  // namespace ox
