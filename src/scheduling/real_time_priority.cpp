#include "scheduling/real_time_priority.h"

#include <system_error>

#include "log/log.h"
#include "scheduling/kernel_priority.h"
#include "scheduling/realtime_kit.h"

namespace ox {

RealTimePriority::RealTimePriority(const char* who)
    : who_(who), thread_(own_thread_id()), limit_(thread_) {
    if (become_real_time()) {
        OX_DEBUG("%s: real-time thread priority", who_);
        return;
    }
    const bool raised = start_ordinary_threads_only() && raise_thread(thread_);
    try {
        helper_ = std::jthread(
            [this, raised](const std::stop_token& stop) { ask_realtime_kit(stop, raised); });
    } catch (const std::system_error& error) {
        OX_DEBUG("%s: %s thread priority (%s)", who_, raised ? "raised" : "ordinary", error.what());
    }
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

}  // namespace ox
