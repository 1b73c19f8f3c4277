#pragma once

// For libraries that link libpulse.
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "audio/sound_server.h"
#include "base/clock.h"

namespace ox {

struct PulseMainloopFree {
    void operator()(pa_mainloop* loop) const { ::pa_mainloop_free(loop); }
};
using PulseMainloopPtr = std::unique_ptr<pa_mainloop, PulseMainloopFree>;

struct PulseContextClose {
    void operator()(pa_context* context) const {
        ::pa_context_disconnect(context);
        ::pa_context_unref(context);
    }
};
/// A connection to the sound server; destroyed before its loop.
using PulseContextPtr = std::unique_ptr<pa_context, PulseContextClose>;

/// Begins to connect to the user's sound server, without starting one; null on failure.
inline PulseContextPtr connect_to_sound_server(pa_mainloop& loop) {
    PulseContextPtr context(::pa_context_new(::pa_mainloop_get_api(&loop), "orvex-agent"));
    const std::string address = sound_server_address();
    const char* server = address.empty() ? nullptr : address.c_str();
    if (context &&
        ::pa_context_connect(context.get(), server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        context.reset();
    }
    return context;
}

/// Handles the next events of a connection. False once it has failed or `deadline` is past.
inline bool run_sound_server_events(
    pa_mainloop& loop, pa_context& context, SteadyClock::time_point deadline,
    std::chrono::microseconds longest = std::chrono::microseconds::max()) {
    const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - SteadyClock::now());
    return PA_CONTEXT_IS_GOOD(::pa_context_get_state(&context)) && left.count() > 0 &&
           ::pa_mainloop_prepare(&loop, static_cast<int>(std::min(left, longest).count())) >= 0 &&
           ::pa_mainloop_poll(&loop) >= 0 && ::pa_mainloop_dispatch(&loop) >= 0;
}

}  // namespace ox
