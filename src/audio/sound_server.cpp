#include "audio/sound_server.h"

#include <pulse/pulseaudio.h>

#include "audio/pulse_handles.h"
#include "base/clock.h"
#include "base/environment.h"
#include "base/local_socket.h"

namespace ox {
namespace {

/// Value that XDG_RUNTIME_DIR lacks; empty when libpulse needs no help or none is known.
std::string missing_runtime_folder() {
    const bool configured =
        !environment("PULSE_SERVER").empty() || !environment("XDG_RUNTIME_DIR").empty();
    const std::string folder = configured ? "" : runtime_folder();
    return !folder.empty() && is_own_socket(folder + "/pulse/native") ? folder : "";
}

}  // namespace

std::string sound_server_address() {
    const std::string folder = missing_runtime_folder();
    return folder.empty() ? "" : "unix:" + folder + "/pulse/native";
}

std::vector<std::string> sound_server_environment() {
    const std::string folder = missing_runtime_folder();
    if (folder.empty()) return {};
    return {"XDG_RUNTIME_DIR=" + folder};
}

bool sound_server_answers(std::chrono::milliseconds limit, const std::function<bool()>& cancelled) {
    constexpr std::chrono::microseconds kSlice{50'000};
    const auto deadline = SteadyClock::now() + limit;
    const PulseMainloopPtr loop(::pa_mainloop_new());
    const PulseContextPtr context = loop ? connect_to_sound_server(*loop) : nullptr;
    while (context && !cancelled()) {
        if (::pa_context_get_state(context.get()) == PA_CONTEXT_READY) return true;
        if (!run_sound_server_events(*loop, *context, deadline, kSlice)) break;
    }
    return false;
}

}  // namespace ox
