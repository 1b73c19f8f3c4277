#pragma once

#include <chrono>
#include <thread>

namespace ox::test {

/// Polls `condition` every millisecond until it holds; false on a timeout.
template <typename Condition>
bool eventually(Condition&& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace ox::test
