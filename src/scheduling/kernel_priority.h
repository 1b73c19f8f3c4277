#pragma once

#include <sys/types.h>

#include <vector>

namespace ox {

/// Low among the real-time priorities: sound servers and drivers go first.
constexpr int kRealTimePriority = 5;
/// The nice value of raised threads: a core that an ordinary thread wants as well is theirs to
/// nine tenths.
constexpr int kRaisedNice = -11;

/// The kernel's id of the calling thread (gettid(2)).
pid_t own_thread_id() noexcept;
/// The ids of this process's threads.
std::vector<pid_t> threads_of_process();

/// Whether the kernel makes the calling thread real-time. What it starts is ordinary again.
bool become_real_time() noexcept;
/// Whether the kernel makes `thread`, one of this process, a raised one.
bool raise_thread(pid_t thread) noexcept;
/// Threads and children that the calling thread starts from now on are ordinary, whatever it is
/// itself (sched(7), SCHED_RESET_ON_FORK). Not to be taken back. False, with nothing done, for a
/// thread that somebody has given another scheduling than the ordinary one.
bool start_ordinary_threads_only() noexcept;

}  // namespace ox
