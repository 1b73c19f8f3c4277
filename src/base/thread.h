#pragma once

#include <system_error>
#include <thread>
#include <utility>

namespace ox {

/// Runs `body` on a new thread. Where the system refuses one, calls `refused` with the reason and
/// returns no thread.
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
