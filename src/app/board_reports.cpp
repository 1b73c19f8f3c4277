#include "app/board_reports.h"

#include <cerrno>
#include <utility>

#include "app/session/stream_settings.h"
#include "base/clock.h"

namespace ox {
namespace {

using tui::EventKind;
using tui::LinkState;
using tui::SessionState;
using tui::Snapshot;

void report_link_up() {
    tui::Board& board = tui::board();
    board.clear(tui::Alert::SecondAgent);
    board.clear(tui::Alert::TokenRejected);
    board.update([&](Snapshot& state) {
        state.link_detail = 3;
        if (std::exchange(state.link, LinkState::Connected) == LinkState::Connected) return;
        state.link_since_s = system_now_s();
        state.add_event(EventKind::PlatformConnected);
    });
}

void report_link_lost() {
    tui::Board& board = tui::board();
    board.update([&](Snapshot& state) {
        state.link_detail = 0;
        const auto before = std::exchange(state.link, LinkState::Reconnecting);
        if (before != LinkState::Reconnecting) state.link_since_s = system_now_s();
        // Before the first connection there is nothing to lose.
        if (before == LinkState::Connected) state.add_event(EventKind::PlatformLost);
    });
}

/// The encoder's name as the owner reads it: "NVENC", "VA-API", "x264", "x265".
std::string encoder_label(const std::string& encoder_name) {
    if (encoder_name.find("nvenc") != std::string::npos) return "NVENC";
    if (encoder_name.find("vaapi") != std::string::npos) return "VA-API";
    return encoder_name.starts_with("lib") ? encoder_name.substr(3) : encoder_name;
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
            return report_link_up();
        case LinkEvent::Lost:
            return report_link_lost();
        case LinkEvent::TokenRefused:
            return tui::board().raise(tui::Alert::TokenRejected, 0);
        case LinkEvent::Replaced:
            return tui::board().raise(tui::Alert::SecondAgent, 0);
    }
}

void report_standalone_mode() {
    tui::board().update([](Snapshot& state) {
        if (std::exchange(state.link, LinkState::Standalone) != LinkState::Standalone) {
            state.link_since_s = system_now_s();
        }
        state.link_detail = 0;
    });
}

void report_own_address(const std::string& ip, uint16_t port_base) {
    const tui::OwnAddress own{.ip = ip, .port_base = port_base};
    if (tui::board().snapshot().own_address == own) return;
    tui::board().update([&](Snapshot& state) { state.own_address = own; });
}

void report_launcher(const std::string& session_id, const std::string& address) {
    tui::board().update([&](Snapshot& state) {
        if (state.session.state == SessionState::None) {
            state.session = {};
            state.session.state = SessionState::Preparing;
            state.session.since_s = system_now_s();
            state.session.active = true;
        }
        state.session.id = session_id;
        state.session.launcher = address;
    });
}

void report_encoder_available(bool available) {
    if (available) {
        tui::board().clear(tui::Alert::EncoderFailed);
    } else {
        tui::board().raise(tui::Alert::EncoderFailed, 0);
    }
}

void report_streaming(const EncoderSettings& settings, const std::string& encoder_name) {
    tui::board().update([&](Snapshot& state) {
        state.session.state = SessionState::Streaming;
        state.session.since_s = system_now_s();
        state.session.encoder = encoder_label(encoder_name);
        state.session.codec = codec_name(settings.codec);
        state.session.width = settings.width;
        state.session.height = settings.height;
        state.session.fps = settings.fps;
        state.add_event(EventKind::PlayerConnected);
    });
}

void report_encoder_change(const std::string& encoder_name) {
    tui::board().update(
        [&](Snapshot& state) { state.session.encoder = encoder_label(encoder_name); });
}

void report_picture(tui::PictureState picture) {
    tui::board().update([&](Snapshot& state) {
        if (state.session.state != SessionState::None) state.session.picture = picture;
    });
}

void report_stream_metrics(double mbps, double fps, float rtt_ms, float loss_pct) {
    tui::board().update([&](Snapshot& state) {
        state.session.measured_mbps = mbps;
        state.session.measured_fps = fps;
        if (rtt_ms > 0.0F) {
            state.session.rtt_ms = rtt_ms;
            state.session.loss_pct = loss_pct;
        }
        state.session.record_metrics();
    });
}

void report_launcher_lost(uint32_t grace_s) {
    tui::board().update([&](Snapshot& state) {
        state.session.holding = true;
        state.session.hold_until_s = system_now_s() + grace_s;
        state.add_event(EventKind::PlayerDropped, grace_s);
    });
}

void report_launcher_back() {
    tui::board().update([](Snapshot& state) {
        state.session.holding = false;
        state.session.hold_until_s = 0;
        state.add_event(EventKind::StreamDirect);
        state.add_event(EventKind::PlayerBack);
    });
}

}  // namespace ox
