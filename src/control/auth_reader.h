#pragma once

#include <cstdint>
#include <functional>

#include "base/clock.h"
#include "base/secret.h"

namespace ox {

enum class AuthRead : uint8_t {
    complete,   ///< a line feed came
    too_large,  ///< more than 16383 bytes without one
    aborted,
    timed_out,
    failed,  ///< the socket has an error
    closed,  ///< the launcher went away
};

/// Reads from the TCP socket `fd` into `line` up to the first line feed; what came behind it in the
/// same segment is dropped. The deadline is for the whole line, so that a launcher that sends byte
/// by byte gains nothing.
AuthRead read_auth_line(int fd, SteadyClock::time_point deadline,
                        const std::function<bool()>& abort, Secret& line);

}  // namespace ox
