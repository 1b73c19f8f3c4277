#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "base/unique_fd.h"

namespace ox {

/// Holds logind's "block" lock against sleep and idle (org.freedesktop.login1.Manager.Inhibit); it
/// also ends with the process. A thread requests it; failure is only logged.
/// The destructor takes 100 ms at most.
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
