#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "base/clock.h"
#include "base/unique_fd.h"

namespace ox {

/// Something that may hang or crash, such as a graphics driver, run in a process of its own beside
/// this one. Start it from a process with one thread.
class BoundedStep {
  public:
    enum class End {
        Answered,
        TimedOut,  ///< no answer within the limit
        Crashed,   ///< the process ended without one
    };
    struct Result {
        End end = End::Crashed;
        std::string text{};  ///< the answer, if there is one
    };

    /// `step` returns its answer: 1 to 4096 bytes. The limit begins now.
    BoundedStep(const std::function<std::string()>& step, std::chrono::milliseconds limit);
    /// Ends what still runs, with the processes that it has started.
    ~BoundedStep();
    BoundedStep(const BoundedStep&) = delete;
    BoundedStep& operator=(const BoundedStep&) = delete;

    Result wait();

  private:
    void end();

    SteadyClock::time_point deadline_;
    UniqueFd answer_;
    pid_t pid_ = -1;
};

}  // namespace ox
