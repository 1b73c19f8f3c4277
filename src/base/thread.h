#pragma once

#include <system_error>
#include <thread>
#include <utility>

namespace ox {

/// Where the system refuses a thread, calls `refused(reason)` and returns none.
template <typename Body, typename Refused>
[[nodiscard]] std::jthread start_thread(Body&& body, Refused&& refused) {
    try {
        return std::jthread(std::forward<Body>(body));
    } catch (const std::system_error& error) {
        refused(error.what());
        return {};
    }
}

}  // namespace ox
