#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "base/unique_fd.h"

namespace ox {

/// Keeps the PC awake under a player: from construction to destruction it holds logind's "block"
/// lock against sleep and idle (org.freedesktop.login1.Manager.Inhibit). The lock is a descriptor,
/// so it also goes when the process dies. It is asked for on a thread of its own, because the bus
/// may take its time and the player does not wait; where there is no bus or no logind, one log line
/// says so. Constructed and destroyed by the session's thread; the destructor returns within 100
/// ms.
class SleepInhibitor {
  public:
    SleepInhibitor();
    ~SleepInhibitor();
    SleepInhibitor(const SleepInhibitor&) = delete;
    SleepInhibitor& operator=(const SleepInhibitor&) = delete;

  private:
    void take_lock(const std::stop_token& stop);

    UniqueFd lock_;  ///< thread_ until it is joined
    std::jthread thread_;
};

}  // namespace ox
