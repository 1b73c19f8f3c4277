#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "base/unique_fd.h"

namespace ox {

/// Keeps the PC awake during a session: holds logind's "block" lock against sleep and idle
/// (org.freedesktop.login1.Manager.Inhibit). The lock is a descriptor, so it also ends with the
/// process. A thread requests it, because the bus may be slow; failure is only logged. The
/// destructor returns within 100 ms.
class SleepInhibitor {
  public:
    SleepInhibitor();
    ~SleepInhibitor();
    SleepInhibitor(const SleepInhibitor&) = delete;
    SleepInhibitor& operator=(const SleepInhibitor&) = delete;

  private:
    void request_lock(const std::stop_token& stop);

    UniqueFd lock_;  ///< the thread's until it is joined
    std::jthread thread_;
};

}  // namespace ox
