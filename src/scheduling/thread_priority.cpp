#include "scheduling/thread_priority.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "base/thread.h"
#include "log/log.h"
#include "scheduling/realtime_kit.h"

namespace ox {
namespace {

// RealtimeKit grants a user 25 requests in 20 seconds, which the desktop's sound server shares. An
// encoder that is reopened for each new bitrate must not use them up.
constexpr size_t kMaxThreads = 12;
constexpr std::chrono::seconds kPause{20};

bool contains(const std::vector<pid_t>& threads, pid_t thread) {
    return std::find(threads.begin(), threads.end(), thread) != threads.end();
}

std::vector<pid_t> started_since(const std::vector<pid_t>& before) {
    std::vector<pid_t> threads = threads_of_process();
    std::erase_if(threads, [&](pid_t thread) { return contains(before, thread); });
    return threads;
}

// Raises one after the other, skipping those that have ended, until one is refused. Returns how
// many were raised.
size_t raise_by_realtime_kit(RealtimeKit& kit, const std::vector<pid_t>& threads) {
    size_t raised = 0;
    for (const pid_t thread : threads) {
        if (kit.raise(thread, kRaisedNice)) {
            ++raised;
        } else if (contains(threads_of_process(), thread)) {
            break;
        }
    }
    return raised;
}

}  // namespace

RealTimePriority::RealTimePriority(const char* who)
    : who_(who), thread_(own_thread_id()), limit_(thread_) {
    if (become_real_time()) {
        OX_DEBUG("%s: real-time thread priority", who_);
        return;
    }
    const bool raised = start_ordinary_threads_only() && raise_thread(thread_);
    helper_ = start_thread(
        [this, raised](const std::stop_token& stop) { ask_realtime_kit(stop, raised); },
        [&](const char* why) {
            OX_DEBUG("%s: %s thread priority (%s)", who_, raised ? "raised" : "ordinary", why);
        });
}

void RealTimePriority::ask_realtime_kit(const std::stop_token& stop, bool raised) const {
    RealtimeKit kit([&stop] { return stop.stop_requested(); });
    if (kit.make_real_time(thread_, kRealTimePriority)) {
        OX_DEBUG("%s: real-time thread priority by RealtimeKit", who_);
    } else if (raised) {
        OX_DEBUG("%s: raised thread priority (%s)", who_, kit.error().c_str());
    } else if (kit.raise(thread_, kRaisedNice)) {
        OX_DEBUG("%s: raised thread priority by RealtimeKit", who_);
    } else {
        OX_DEBUG("%s: ordinary thread priority (%s)", who_, kit.error().c_str());
    }
}

RaisedThreads::~RaisedThreads() {
    helper_.request_stop();
    if (helper_.joinable()) helper_.join();
    if (original_nice_) {
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(own_thread_id()), *original_nice_);
    }
}

void RaisedThreads::raise_since(const std::vector<pid_t>& before) {
    if (!start_ordinary_threads_only()) return;
    std::vector<pid_t> threads = started_since(before);
    const pid_t owner = own_thread_id();
    if (!original_nice_) {
        original_nice_ = ::getpriority(PRIO_PROCESS, static_cast<id_t>(owner));
        threads.insert(threads.begin(), owner);
    }
    const size_t all = threads.size();
    std::erase_if(threads, raise_thread);
    if (threads.empty()) {
        OX_DEBUG("%s: raised priority for %zu thread(s)", who_, all);
    } else {
        ask_realtime_kit(threads);
    }
}

void RaisedThreads::ask_realtime_kit(const std::vector<pid_t>& threads) {
    const MutexLock lock(mutex_);
    queue_.insert(queue_.end(), threads.begin(), threads.end());
    wake_.notify_one();
    if (helper_.joinable()) return;
    helper_ = start_thread(
        [this](const std::stop_token& stop) { serve(stop); },
        [this](const char* why) { OX_DEBUG("%s: ordinary priority (%s)", who_, why); });
}

void RaisedThreads::serve(const std::stop_token& stop) {
    for (;;) {
        std::vector<pid_t> threads;
        {
            MutexLock lock(mutex_);
            const auto has_work = [this]() OX_REQUIRES(mutex_) { return !queue_.empty(); };
            if (!wake_.wait(lock, stop, has_work)) return;
            threads.swap(queue_);
        }
        const std::vector<pid_t> present = threads_of_process();
        std::erase_if(threads, [&](pid_t thread) { return !contains(present, thread); });
        threads.resize(std::min(threads.size(), kMaxThreads));
        RealtimeKit kit([&stop] { return stop.stop_requested(); });
        const size_t raised = raise_by_realtime_kit(kit, threads);
        OX_DEBUG("%s: raised priority by RealtimeKit for %zu of %zu thread(s)%s%s", who_, raised,
                 threads.size(), kit.error().empty() ? "" : ": ", kit.error().c_str());
        MutexLock lock(mutex_);
        wake_.wait_for(lock, stop, kPause, [] { return false; });
    }
}

}  // namespace ox
