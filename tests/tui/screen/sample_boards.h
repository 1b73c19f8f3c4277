#pragma once

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "tui/board/board.h"

namespace ox::tui::test {

constexpr int64_t kNow = 1'700'000'000;

/// A platform agent between two sessions.
inline Snapshot connected_board() {
    Snapshot board;
    board.started = true;
    board.version = "0.4.448";
    board.host = "rig";
    board.gpu = "Some GPU";
    board.log_path = "/var/log/agent.log";
    board.link = LinkState::Connected;
    board.link_since_s = kNow - 3900;
    for (const EventKind kind : {EventKind::AgentStarted, EventKind::PlatformConnected,
                                 EventKind::PcRented, EventKind::SessionEnded}) {
        board.add_event(kind, 754);
        board.events.back().clock = "14:03";
    }
    return board;
}

inline Snapshot streaming_board() {
    Snapshot board = connected_board();
    SessionView& session = board.session;
    session.state = SessionState::Streaming;
    session.since_s = kNow - 3725;
    session.launcher = "10.0.0.5";
    session.encoder = "NVENC";
    session.codec = "HEVC";
    session.width = 2560;
    session.height = 1440;
    session.fps = 120;
    for (int i = 0; i < 120; ++i) {
        session.measured_mbps = 23.4 + std::sin(i);
        session.measured_fps = 119.2;
        session.rtt_ms = i < 3 ? -1 : 17;
        session.loss_pct = i < 3 ? -1 : 0.3;
        session.record_metrics();
    }
    session.measured_mbps = 23.4;
    return board;
}

inline Snapshot holding_board() {
    Snapshot board = streaming_board();
    board.session.holding = true;
    board.session.hold_until_s = kNow + 42;
    board.add_event(EventKind::PlayerDropped, 60);
    return board;
}

inline Snapshot with_alerts(Snapshot board, const std::vector<Alert>& alerts) {
    for (const Alert alert : alerts)
        board.alerts.at(static_cast<size_t>(alert)) = true;
    board.busy_port = 48'001;
    return board;
}

inline std::vector<Alert> all_alerts() {
    std::vector<Alert> alerts;
    for (size_t i = 0; i < kAlertCount; ++i)
        alerts.push_back(static_cast<Alert>(i));
    return alerts;
}

/// Every external text is hostile, every number absurd.
inline Snapshot nasty_board() {
    Snapshot board = with_alerts(holding_board(), all_alerts());
    using std::string_view_literals::operator""sv;
    const std::string nasty = "\x1B[2J\x1B]0;title\x07" +
                              std::string("\xD0 漢字🎮 e\u0301\r\n\t\0"sv) +
                              "\u202Eevil\u200B \xED\xA0\x80 \xF7\xBF\xBF\xBF \u009B31m";
    for (std::string* text :
         {&board.version, &board.host, &board.gpu, &board.log_path, &board.session.launcher,
          &board.session.encoder, &board.session.codec, &board.session.id}) {
        *text = nasty + nasty + nasty;
    }
    for (Event& event : board.events)
        event.detail = event.clock = nasty;
    board.link_since_s = -1'000'000'000'000;
    board.session.since_s = kNow + 1'000'000'000'000;
    board.session.width = board.session.height = board.session.fps = 0xFFFFFFFF;
    board.session.measured_mbps = 1e300;
    board.session.measured_fps = std::nan("");
    board.session.rtt_ms = INFINITY;
    board.session.record_metrics();
    return board;
}

}  // namespace ox::tui::test
