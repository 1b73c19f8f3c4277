// Shows the console screen on this terminal in a chosen state, with simulated measurements, to
// review it and to measure its CPU time.
//
//   screen_gallery STATE [SECONDS]
//
// STATE: idle, connected, connecting, reconnecting, preparing, streaming, poor, holding, alert,
// alerts, busy-alerts. Without SECONDS it runs until Ctrl+C. The language and the colours follow
// the environment as for the agent. The CPU time used goes to standard error at the end.

#include <sys/resource.h>

#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "tui/board/board.h"
#include "tui/board/localization.h"
#include "tui/screen/screen.h"

namespace {

using namespace ox;
using namespace ox::tui;

std::sig_atomic_t volatile stop_requested = 0;

void add_event(Snapshot& state, EventKind kind, int64_t seconds_ago, int64_t value = 0) {
    state.add_event(kind, value);
    Event& event = state.events.back();
    event.time_s -= seconds_ago;
    event.clock = clock_text(event.time_s);
}

void add_metrics(SessionView& session, int step, bool poor) {
    const double wave = std::sin(step / 5.0) + 0.5 * std::sin(step / 1.7);
    const double calm = std::sin(step / 11.0);  // quiet scenes need fewer bits
    session.measured_mbps = 9.3 + 1.6 * wave + 3.4 * calm;
    session.measured_fps = 59.9 - (step % 31 == 0 ? 2.8 : 0.1 * std::abs(wave));
    session.rtt_ms = 14 + 3 * std::abs(wave) + (step % 17 == 0 ? 11 : 0);
    session.loss_pct = step % 29 == 0 ? 0.3 : 0.0;
    if (poor) {
        session.measured_fps = 47 + 6 * wave;
        session.rtt_ms = 130 + 60 * wave;
        session.loss_pct = std::max(0.0, 1.4 + 1.5 * wave);
    }
    session.record_metrics();
}

void begin(Snapshot& state) {
    state.started = true;
    state.version = "0.4.448";
    state.host = "playroom-07";
    state.gpu = "NVIDIA GeForce RTX 4070";
    state.log_path = "/home/alex/.local/state/orvex/agent.log";
    add_event(state, EventKind::AgentStarted, 11'530);
}

void connect(Snapshot& state) {
    state.link = LinkState::Connected;
    state.link_since_s = system_now_s() - 11'526;
    add_event(state, EventKind::PlatformConnected, 11'526);
}

void played_before(Snapshot& state) {
    add_event(state, EventKind::PcRented, 9'020);
    add_event(state, EventKind::PlayerConnected, 9'008);
    add_event(state, EventKind::SessionEnded, 3'970, 5'038);
}

void stream(Snapshot& state, bool poor) {
    add_event(state, EventKind::PcRented, 884);
    add_event(state, EventKind::PlayerConnected, 872);
    SessionView& session = state.session;
    session.state = SessionState::Streaming;
    session.since_s = system_now_s() - 872;
    session.id = "5d0e8a1c-77f2-4c0b-9d55-1f3f2a90c1de";
    session.launcher = "93.184.216.34";
    session.encoder = "NVENC";
    session.codec = "H.264";
    session.width = 1920;
    session.height = 1080;
    session.fps = 60;
    session.active = true;
    for (int step = 0; step < 70; ++step)
        add_metrics(session, step, poor);
}

void raise(Snapshot& state, Alert alert, int64_t seconds_ago) {
    state.alerts.at(static_cast<size_t>(alert)) = true;
    add_event(state, EventKind::AlertRaised, seconds_ago);
    state.events.back().alert = alert;
    state.events.back().port = state.busy_port = 48'001;
}

bool enter(Snapshot& state, std::string_view name) {
    begin(state);
    if (name == "idle") {
        state.link = LinkState::Standalone;
        state.own_address = {"192.168.1.20", 47998};
        state.link_since_s = system_now_s() - 11'529;
        return true;
    }
    if (name == "connecting") return true;
    connect(state);
    played_before(state);
    if (name == "connected") return true;
    if (name == "reconnecting") {
        state.link = LinkState::Reconnecting;
        state.link_since_s = system_now_s() - 42;
        add_event(state, EventKind::PlatformLost, 42);
        return true;
    }
    if (name == "alert") {
        raise(state, Alert::UinputDenied, 340);
        return true;
    }
    if (name == "preparing") {
        add_event(state, EventKind::PcRented, 4);
        state.session.state = SessionState::Preparing;
        state.session.since_s = system_now_s() - 4;
        state.session.launcher = "93.184.216.34";
        return true;
    }
    const bool four = name == "alerts" || name == "busy-alerts";
    if (four) {
        raise(state, Alert::NvidiaDriverMissing, 2'710);
        raise(state, Alert::UinputDenied, 2'710);
        raise(state, Alert::PortBusy, 700);
        raise(state, Alert::CaptureFailed, 610);
        if (name == "alerts") return true;
    }
    stream(state, name == "poor");
    if (name == "holding") {
        state.session.holding = true;
        state.session.hold_until_s = system_now_s() + 43;
        add_event(state, EventKind::PlayerDropped, 17, 60);
        return true;
    }
    return four || name == "streaming" || name == "poor";
}

ColourMode colour_mode() {
    const char* value = std::getenv("COLORTERM");
    const std::string_view depth = value == nullptr ? "" : value;
    return depth == "truecolor" || depth == "24bit" ? ColourMode::TrueColour : ColourMode::Ansi;
}

double cpu_ms() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view name = argc > 1 ? argv[1] : "";
    const double seconds = argc > 2 ? std::atof(argv[2]) : 1e9;
    bool known = false;
    board().update([&](Snapshot& state) { known = enter(state, name); });
    if (!known) {
        std::fprintf(stderr, "usage: screen_gallery STATE [SECONDS]\n");
        return 2;
    }
    ScreenRunner runner;
    runner.start(os_language(), board(), colour_mode());
    std::signal(SIGINT, [](int) { stop_requested = 1; });
    std::signal(SIGTERM, [](int) { stop_requested = 1; });
    const double before_ms = cpu_ms();
    const auto begun = SteadyClock::now();
    const auto end = begun + std::chrono::duration<double>(seconds);
    const bool moves = name == "streaming" || name == "poor" || name == "busy-alerts";
    for (int step = 70; stop_requested == 0 && SteadyClock::now() < end; ++step) {
        for (int i = 0; i < 20 && stop_requested == 0 && SteadyClock::now() < end; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!moves) continue;
        board().update([&](Snapshot& state) { add_metrics(state.session, step, name == "poor"); });
    }
    const double used_ms = cpu_ms() - before_ms;
    const std::chrono::duration<double> lasted = SteadyClock::now() - begun;
    runner.stop();
    std::fprintf(stderr, "%.1f ms of CPU in %.1f s\n", used_ms, lasted.count());
    return 0;
}
