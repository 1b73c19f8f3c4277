#include "tui/board/board.h"

#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "tui/board/localization.h"

namespace ox::tui {
namespace {

constexpr size_t kKeptEvents = 8;

Event make_event(EventKind kind) {
    Event event;
    event.time_s = system_now_s();
    event.clock = clock_text(event.time_s);
    event.kind = kind;
    return event;
}

}  // namespace

void Snapshot::add_event(Event event) {
    events.push_back(std::move(event));
    while (events.size() > kKeptEvents)
        events.pop_front();
    ++events_total;
}

void Snapshot::add_event(EventKind kind, int64_t value) {
    Event event = make_event(kind);
    event.value = value;
    add_event(std::move(event));
}

void SessionView::record_metrics() {
    history.push_back({.mbps = static_cast<float>(measured_mbps),
                       .fps = static_cast<float>(measured_fps),
                       .rtt_ms = static_cast<float>(rtt_ms),
                       .loss_pct = static_cast<float>(loss_pct)});
    while (history.size() > kMetricsHistory)
        history.pop_front();
}

Snapshot Board::snapshot() const {
    const MutexLock lock(mutex);
    return state;
}

void Board::raise(Alert alert, uint16_t port) {
    const MutexLock lock(mutex);
    raise_locked(alert, port);
}

void Board::raise_locked(Alert alert, uint16_t port) {
    bool& active = state.alerts.at(static_cast<size_t>(alert));
    if (alert == Alert::PortBusy) state.busy_port = port;
    if (!active) {
        Event event = make_event(EventKind::AlertRaised);
        event.alert = alert;
        event.port = port;
        state.add_event(std::move(event));
    }
    active = true;
    touch_locked();
}

void Board::raise_capture(CaptureTrouble trouble) {
    const MutexLock lock(mutex);
    state.alert_reason.capture = trouble;
    raise_locked(Alert::CaptureFailed, 0);
}

void Board::clear(Alert alert) {
    const MutexLock lock(mutex);
    if (!std::exchange(state.alerts.at(static_cast<size_t>(alert)), false)) return;
    touch_locked();
}

void Board::clear_port(uint16_t port) {
    const MutexLock lock(mutex);
    bool& active = state.alerts.at(static_cast<size_t>(Alert::PortBusy));
    if (state.busy_port != port || !std::exchange(active, false)) return;
    touch_locked();
}

void Board::input_device(int error) {
    if (error == 0) return clear(Alert::UinputDenied);
    const MutexLock lock(mutex);
    // The device node may exist although the module is not loaded.
    state.alert_reason.uinput_absent = error == ENOENT || error == ENODEV || error == ENXIO;
    raise_locked(Alert::UinputDenied, 0);
}

ClosedPort Board::closed_port() const {
    const MutexLock lock(mutex);
    return state.closed_port;
}

void Board::control_port_closed(uint16_t port, int error) {
    const MutexLock lock(mutex);
    const ClosedPort closed{port, error};
    if (std::exchange(state.closed_port, closed) != closed) touch_locked();
}

void Board::control_port_open(uint16_t port) {
    control_port_closed(0, 0);
    clear_port(port);
}

void Board::push_locked(EventKind kind, int64_t value) {
    state.add_event(kind, value);
    touch_locked();
}

void Board::push(EventKind kind, int64_t value) {
    const MutexLock lock(mutex);
    push_locked(kind, value);
}

void Board::session_ended(bool started, int64_t duration_s) {
    const MutexLock lock(mutex);
    const int64_t now_s = system_now_s();
    if (state.session.state != SessionState::None) {
        if (started || state.session.state == SessionState::Streaming) {
            if (duration_s < 0) duration_s = now_s - state.session.since_s;
            state.add_event(EventKind::SessionEnded, duration_s);
        } else {
            state.add_event(EventKind::SessionNotStarted);
        }
    }
    state.session = SessionView{};
    state.session.since_s = now_s;
    touch_locked();
}

void Board::touch_locked() {
    ++state.changes;
    changed.notify_all();
}

Board& board() {
    static Board instance;
    return instance;
}

}  // namespace ox::tui
