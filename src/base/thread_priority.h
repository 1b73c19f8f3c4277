#pragma once

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace ox {

enum class ThreadPriority : uint8_t {
    RealTime,  ///< before every ordinary thread of the PC
    Raised,    ///< a larger share than ordinary threads get
    Ordinary,  ///< the system grants neither
};

/// Asks for the calling thread to run as soon as it has something to do, although a game or an
/// encoder keeps every core busy. For threads that wait most of the time and do little at once.
/// Children and threads that it starts are ordinary again (sched(7), SCHED_RESET_ON_FORK).
inline ThreadPriority ask_for_priority() noexcept {
    constexpr int kRealTime =
        5;  // low among the real-time ones: sound servers and drivers go first
    constexpr int kNice = -11;
    const sched_param parameters{.sched_priority = kRealTime};
    if (::pthread_setschedparam(::pthread_self(), SCHED_RR | SCHED_RESET_ON_FORK, &parameters) ==
        0) {
        return ThreadPriority::RealTime;
    }
    const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
    return ::setpriority(PRIO_PROCESS, thread, kNice) == 0 ? ThreadPriority::Raised
                                                           : ThreadPriority::Ordinary;
}

constexpr const char* to_text(ThreadPriority priority) {
    switch (priority) {
        case ThreadPriority::RealTime:
            return "real-time";
        case ThreadPriority::Raised:
            return "raised";
        case ThreadPriority::Ordinary:
            break;
    }
    return "ordinary";
}

}  // namespace ox
