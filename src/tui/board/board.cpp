#include "tui/board/board.h"

#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "tui/board/clock_text.h"

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

void append(Snapshot& state, Event event) {
    state.events.push_back(std::move(event));
    while (state.events.size() > kKeptEvents)
        state.events.pop_front();
    ++state.events_total;
}

void append(Snapshot& state, EventKind kind, int64_t value) {
    Event event = make_event(kind);
    event.value = value;
    append(state, std::move(event));
}

}  // namespace

void SessionView::keep_figures() {
    history.push_back({.mbps = static_cast<float>(measured_mbps),
                       .fps = static_cast<float>(measured_fps),
                       .rtt_ms = static_cast<float>(rtt_ms),
                       .loss_pct = static_cast<float>(loss_pct)});
    while (history.size() > kKeptFigures)
        history.pop_front();
}

Snapshot Board::snapshot() const {
    const std::lock_guard lock(mutex);
    return state;
}

void Board::raise(Alert alert, uint16_t port) {
    const std::lock_guard lock(mutex);
    bool& active = state.alerts.at(static_cast<size_t>(alert));
    if (alert == Alert::PortBusy) state.busy_port = port;
    if (!active) {
        Event event = make_event(EventKind::AlertRaised);
        event.alert = alert;
        event.port = port;
        append(state, std::move(event));
    }
    active = true;
    touch_locked();
}

void Board::raise_capture(CaptureTrouble trouble) {
    update([&](Snapshot& fresh) { fresh.alert_reason.capture = trouble; });
    raise(Alert::CaptureFailed, 0);
}

void Board::clear(Alert alert) {
    const std::lock_guard lock(mutex);
    if (!std::exchange(state.alerts.at(static_cast<size_t>(alert)), false)) return;
    touch_locked();
}

void Board::clear_port(uint16_t port) {
    const std::lock_guard lock(mutex);
    bool& active = state.alerts.at(static_cast<size_t>(Alert::PortBusy));
    if (state.busy_port != port || !std::exchange(active, false)) return;
    touch_locked();
}

void Board::input_device(int error) {
    if (error == 0) return clear(Alert::UinputDenied);
    {
        const std::lock_guard lock(mutex);
        // A node that is there may have no module behind it.
        state.alert_reason.uinput_absent = error == ENOENT || error == ENODEV || error == ENXIO;
    }
    raise(Alert::UinputDenied, 0);
}

ClosedPort Board::closed_port() const {
    const std::lock_guard lock(mutex);
    return state.closed_port;
}

void Board::control_port_closed(uint16_t port, int error) {
    const std::lock_guard lock(mutex);
    const ClosedPort closed{port, error};
    if (std::exchange(state.closed_port, closed) != closed) touch_locked();
}

void Board::control_port_open(uint16_t port) {
    control_port_closed(0, 0);
    clear_port(port);
}

void Board::push_locked(EventKind kind, int64_t value) {
    append(state, kind, value);
    touch_locked();
}

void Board::push(EventKind kind, int64_t value) {
    const std::lock_guard lock(mutex);
    push_locked(kind, value);
}

void Board::session_ended(bool started, int64_t duration_s) {
    const std::lock_guard lock(mutex);
    const int64_t now_s = system_now_s();
    if (state.session.state != SessionState::None) {
        if (started || state.session.state == SessionState::Streaming) {
            if (duration_s < 0) duration_s = now_s - state.session.since_s;
            append(state, EventKind::SessionEnded, duration_s);
        } else {
            append(state, EventKind::SessionNotStarted, 0);
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
