#include "app/session/session_board.h"

#include "app/session/stream_settings.h"
#include "base/clock.h"

namespace ox::session_board {

using tui::EventKind;
using tui::SessionState;
using tui::Snapshot;

void launcher_authenticated(const std::string& session_id, const std::string& launcher) {
    tui::board().update([&](Snapshot& state) {
        if (state.session.state == SessionState::None) {
            state.session = {};
            state.session.state = SessionState::Preparing;
            state.session.since_s = system_now_s();
            state.session.active = true;
        }
        state.session.id = session_id;
        state.session.launcher = launcher;
    });
}

void streaming(const EncoderSettings& settings, const std::string& encoder_label) {
    tui::board().update([&](Snapshot& state) {
        state.session.state = SessionState::Streaming;
        state.session.since_s = system_now_s();
        state.session.encoder = encoder_label;
        state.session.codec = codec_name(settings.codec);
        state.session.width = settings.width;
        state.session.height = settings.height;
        state.session.fps = settings.fps;
        state.add_event(EventKind::PlayerConnected);
    });
}

void encoder(const std::string& encoder_label) {
    tui::board().update([&](Snapshot& state) { state.session.encoder = encoder_label; });
}

void holding(uint32_t grace_s) {
    tui::board().update([&](Snapshot& state) {
        state.session.holding = true;
        state.session.hold_until_s = system_now_s() + grace_s;
        state.add_event(EventKind::PlayerDropped, grace_s);
    });
}

void resumed() {
    tui::board().update([](Snapshot& state) {
        state.session.holding = false;
        state.session.hold_until_s = 0;
        state.add_event(EventKind::StreamDirect);
        state.add_event(EventKind::PlayerBack);
    });
}

void picture(tui::PictureState picture) {
    tui::board().update([&](Snapshot& state) {
        if (state.session.state != SessionState::None) state.session.picture = picture;
    });
}

void figures(double mbps, double fps, float rtt_ms, float loss_pct) {
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

}  // namespace ox::session_board
