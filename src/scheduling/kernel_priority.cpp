#include "scheduling/kernel_priority.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <string>

namespace ox {

pid_t own_thread_id() noexcept {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

std::vector<pid_t> threads_of_process() {
    std::vector<pid_t> threads;
    std::error_code failure;
    std::filesystem::directory_iterator entry("/proc/self/task", failure);
    for (; !failure && entry != end(entry); entry.increment(failure)) {
        const std::string name = entry->path().filename();
        pid_t thread = 0;
        std::from_chars(name.data(), name.data() + name.size(), thread);
        if (thread > 0) threads.push_back(thread);
    }
    return threads;
}

bool become_real_time() noexcept {
    const sched_param parameters{.sched_priority = kRealTimePriority};
    return ::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0;
}

bool raise_thread(pid_t thread) noexcept {
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), kRaisedNice) == 0;
}

bool start_ordinary_threads_only() noexcept {
    const int policy = ::sched_getscheduler(0);
    if ((policy & ~SCHED_RESET_ON_FORK) != SCHED_OTHER) return false;
    const sched_param parameters{.sched_priority = 0};
    return ::sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameters) == 0;
}

}  // namespace ox
