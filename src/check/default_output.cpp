#include "check/default_output.h"

#include <pulse/pulseaudio.h>

#include "audio/pulse_handles.h"
#include "base/clock.h"

namespace ox {
namespace {

/// One question after the other, each in the answer to the one before.
struct Questions {
    DefaultOutput found{};
    bool done = false;

    void go_on(pa_operation* operation) {
        if (operation == nullptr) {
            done = true;
        } else {
            ::pa_operation_unref(operation);
        }
    }

    static void on_server(pa_context* context, const pa_server_info* info, void* self) {
        auto* questions = static_cast<Questions*>(self);
        questions->found.server = info != nullptr;
        if (info == nullptr || info->default_sink_name == nullptr) {
            questions->done = true;
            return;
        }
        questions->go_on(::pa_context_get_sink_info_by_name(context, info->default_sink_name,
                                                            &Questions::on_sink, self));
    }

    static void on_sink(pa_context* /*context*/, const pa_sink_info* info, int end, void* self) {
        auto* questions = static_cast<Questions*>(self);
        if (end != 0 || info == nullptr) {
            questions->done = true;
            return;
        }
        const char* monitor = info->monitor_source_name;
        questions->found.monitor = monitor == nullptr ? "" : monitor;
        questions->found.muted = info->mute != 0;
    }
};

}  // namespace

DefaultOutput read_default_output(std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    const PulseMainloopPtr loop(::pa_mainloop_new());
    const PulseContextPtr context = loop ? connect_to_sound_server(*loop) : nullptr;
    Questions questions;
    bool asked = false;
    while (context && !questions.done) {
        if (::pa_context_get_state(context.get()) == PA_CONTEXT_READY && !asked) {
            asked = true;
            questions.go_on(
                ::pa_context_get_server_info(context.get(), &Questions::on_server, &questions));
        }
        if (!run_sound_server_events(*loop, *context, deadline)) break;
    }
    return questions.found;
}

}  // namespace ox
