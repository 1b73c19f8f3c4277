#include "scheduling/raised_threads.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <utility>

#include "log/log.h"
#include "scheduling/kernel_priority.h"
#include "scheduling/realtime_kit.h"

namespace ox {
namespace {

// RealtimeKit serves a user 25 times in 20 seconds, and the desktop's sound server lives off the
// same. An encoder that is opened again and again, for each new bitrate, must not use that up.
constexpr size_t kMostThreads = 12;
constexpr std::chrono::seconds kPause{20};

bool contains(const std::vector<pid_t>& threads, pid_t thread) {
    return std::find(threads.begin(), threads.end(), thread) != threads.end();
}

std::vector<pid_t> started_since(const std::vector<pid_t>& before) {
    std::vector<pid_t> threads = threads_of_process();
    std::erase_if(threads, [&](pid_t thread) { return contains(before, thread); });
    return threads;
}

/// Raises one after the other, but for those that have ended meanwhile, until one is refused.
/// Returns how many were raised.
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

RaisedThreads::~RaisedThreads() {
    helper_.request_stop();
    if (helper_.joinable()) helper_.join();
    if (ordinary_nice_) {
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(own_thread_id()), *ordinary_nice_);
    }
}

void RaisedThreads::raise_since(const std::vector<pid_t>& before) {
    if (!start_ordinary_threads_only()) return;
    std::vector<pid_t> threads = started_since(before);
    const pid_t owner = own_thread_id();
    if (!ordinary_nice_) {
        ordinary_nice_ = ::getpriority(PRIO_PROCESS, static_cast<id_t>(owner));
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
    const std::lock_guard lock(mutex_);
    asked_for_.insert(asked_for_.end(), threads.begin(), threads.end());
    wake_.notify_one();
    if (helper_.joinable()) return;
    try {
        helper_ = std::jthread([this](const std::stop_token& stop) { serve(stop); });
    } catch (const std::system_error& error) {
        OX_DEBUG("%s: ordinary priority (%s)", who_, error.what());
    }
}

void RaisedThreads::serve(const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    while (wake_.wait(lock, stop, [this] { return !asked_for_.empty(); })) {
        std::vector<pid_t> threads = std::exchange(asked_for_, {});
        lock.unlock();
        const std::vector<pid_t> present = threads_of_process();
        std::erase_if(threads, [&](pid_t thread) { return !contains(present, thread); });
        threads.resize(std::min(threads.size(), kMostThreads));
        RealtimeKit kit([&stop] { return stop.stop_requested(); });
        const size_t raised = raise_by_realtime_kit(kit, threads);
        OX_DEBUG("%s: raised priority by RealtimeKit for %zu of %zu thread(s)%s%s", who_, raised,
                 threads.size(), kit.error().empty() ? "" : ": ", kit.error().c_str());
        lock.lock();
        wake_.wait_for(lock, stop, kPause, [] { return false; });
    }
}

}  // namespace ox
