#include "app/board_reports.h"

#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "tui/board/board.h"

namespace ox {
namespace {

void show_connected() {
    tui::Board& board = tui::board();
    board.clear(tui::Alert::SecondAgent);
    board.clear(tui::Alert::TokenRejected);
    board.update([&](tui::Snapshot& shown) {
        shown.link_detail = 3;
        if (std::exchange(shown.link, tui::LinkState::Connected) == tui::LinkState::Connected)
            return;
        shown.link_since_s = system_now_s();
        shown.add_event(tui::EventKind::PlatformConnected);
    });
}

void show_lost() {
    tui::Board& board = tui::board();
    board.update([&](tui::Snapshot& shown) {
        shown.link_detail = 0;
        const auto before = std::exchange(shown.link, tui::LinkState::Reconnecting);
        if (before != tui::LinkState::Reconnecting) shown.link_since_s = system_now_s();
        // The first attempts of all have lost nothing.
        if (before == tui::LinkState::Connected) shown.add_event(tui::EventKind::PlatformLost);
    });
}

}  // namespace

void report_bound_port(uint16_t port, int error) {
    if (error == 0) tui::board().clear_port(port);
    if (error == EADDRINUSE) tui::board().raise(tui::Alert::PortBusy, port);
}

void report_control_port(uint16_t port, int error) {
    if (error == 0) return tui::board().control_port_open(port);
    report_bound_port(port, error);
    tui::board().control_port_closed(port, error);
}

void report_platform_link(LinkEvent event) {
    switch (event) {
        case LinkEvent::Connected:
            return show_connected();
        case LinkEvent::Lost:
            return show_lost();
        case LinkEvent::TokenRefused:
            return tui::board().raise(tui::Alert::TokenRejected, 0);
        case LinkEvent::Replaced:
            return tui::board().raise(tui::Alert::SecondAgent, 0);
    }
}

}  // namespace ox
