#pragma once

#include <cstdint>
#include <functional>

#include "base/clock.h"

namespace ox {

enum class WaitResult : int8_t { readable = 1, timed_out = 0, aborted = -1, failed = -2 };

/// Waits until `fd` can be read (end of stream included), the deadline is reached (to a
/// millisecond), `abort` returns true, which is asked at least every 100 ms and may be empty, or
/// the descriptor has an error.
WaitResult wait_readable(int fd, SteadyClock::time_point deadline,
                         const std::function<bool()>& abort);

}  // namespace ox
