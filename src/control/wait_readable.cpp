#include "control/wait_readable.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace ox {

WaitResult wait_readable(int fd, SteadyClock::time_point deadline,
                         const std::function<bool()>& abort) {
    using std::chrono::milliseconds;
    constexpr milliseconds kAbortInterval{100};
    for (;;) {
        const auto remaining =
            std::chrono::duration_cast<milliseconds>(deadline - SteadyClock::now());
        if (remaining < milliseconds(1)) return WaitResult::timed_out;
        if (abort && abort()) return WaitResult::aborted;

        pollfd watched{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready =
            ::poll(&watched, 1, static_cast<int>(std::min(remaining, kAbortInterval).count()));
        if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
        if (ready < 0 || (watched.revents & (POLLERR | POLLNVAL)) != 0) return WaitResult::failed;
        return WaitResult::readable;
    }
}

}  // namespace ox
