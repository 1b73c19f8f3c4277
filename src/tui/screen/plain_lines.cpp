#include "tui/screen/plain_lines.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/text.h"
#include "tui/board/clock_text.h"

namespace ox::tui {
namespace {

const char* in(Lang lang, const char* english, const char* russian) {
    return lang == Lang::Russian ? russian : english;
}

std::string link_text(LinkState link, Lang lang) {
    switch (link) {
        case LinkState::None:
            return in(lang, "Not connected to the platform", "Нет связи с\u00A0платформой");
        case LinkState::Connected:
            return in(lang, "The platform link is up", "Связь с\u00A0платформой есть");
        case LinkState::Reconnecting:
            return in(lang, "The platform link is down, reconnecting",
                      "Связи с\u00A0платформой нет, переподключаемся");
        case LinkState::Standalone:
            return in(lang, "Standalone mode, waiting for launchers",
                      "Автономный режим, ждём лаунчер");
    }
    return {};
}

std::string session_text(SessionState state, Lang lang) {
    switch (state) {
        case SessionState::None:
            return in(lang, "The session is over", "Сессия завершена");
        case SessionState::Preparing:
            return in(lang, "Preparing a session", "Готовим сессию");
        case SessionState::Streaming:
            return in(lang, "The session is running", "Сессия идёт");
    }
    return {};
}

// Empty as long as the encoder is not known.
std::string stream_text(const SessionView& session, Lang lang) {
    if (session.state != SessionState::Streaming || session.encoder.empty()) return {};
    std::string text = in(lang, "Streaming", "Трансляция");
    if (!session.launcher.empty()) text += in(lang, " to ", " на\u00A0") + session.launcher;
    return text + ": " + session.codec + " " + std::to_string(session.width) + "x" +
           std::to_string(session.height) + ", " + std::to_string(session.fps) +
           in(lang, " fps, ", "\u00A0кадр/с, ") + session.encoder;
}

}  // namespace

std::vector<std::string> PlainLines::news(const Snapshot& snapshot, int64_t now_s) {
    const std::string now = clock_text(now_s);
    add_identity(snapshot);
    add_events(snapshot);
    add_link(snapshot, now);
    add_session(snapshot.session, now);
    add_closed_port(snapshot.closed_port, now);
    add_alerts(snapshot, now);
    return std::exchange(lines_, {});
}

void PlainLines::add(const std::string& clock, const std::string& text) {
    lines_.push_back(text::printable(clock + " " + text));
}

void PlainLines::add_identity(const Snapshot& snapshot) {
    if (std::exchange(introduced_, true)) return;
    std::string line = "orvex-agent " + snapshot.version;
    if (!snapshot.host.empty()) line += in(lang_, " on ", " на\u00A0") + snapshot.host;
    if (!snapshot.log_path.empty()) line += in(lang_, ", log: ", ", лог: ") + snapshot.log_path;
    lines_.push_back(text::printable(line));
}

void PlainLines::add_events(const Snapshot& snapshot) {
    const uint64_t fresh =
        snapshot.events_total - std::exchange(events_told_, snapshot.events_total);
    const size_t count = static_cast<size_t>(std::min<uint64_t>(fresh, snapshot.events.size()));
    for (size_t i = snapshot.events.size() - count; i < snapshot.events.size(); ++i) {
        const Event& event = snapshot.events[i];
        note_told(event.kind);
        if (event.kind == EventKind::AlertRaised) {
            add_alert(event.alert, event.clock, snapshot);
            continue;
        }
        const std::string words = event_text(event, lang_, event.port);
        if (!words.empty()) {
            add(event.clock, event.detail.empty() ? words : words + ": " + event.detail);
        }
    }
}

void PlainLines::note_told(EventKind kind) {
    switch (kind) {
        case EventKind::PlatformConnected:
            link_.by_event = LinkState::Connected;
            break;
        case EventKind::PlatformLost:
            link_.by_event = LinkState::Reconnecting;
            break;
        case EventKind::PlayerConnected:
            session_.by_event = SessionState::Streaming;
            break;
        case EventKind::PlayerDropped:
            holding_.by_event = true;
            break;
        case EventKind::PlayerBack:
            holding_.by_event = false;
            break;
        case EventKind::SessionEnded:
        case EventKind::SessionNotStarted:
            session_.by_event = SessionState::None;
            holding_.by_event = false;
            stream_.clear();
            break;
        case EventKind::AgentStarted:
        case EventKind::PcRented:
        case EventKind::StreamRelayed:
        case EventKind::StreamDirect:
        case EventKind::AlertRaised:
        case EventKind::Stopping:
        case EventKind::StoppedOnError:
            break;
    }
}

void PlainLines::add_link(const Snapshot& snapshot, const std::string& clock) {
    if (link_.is_news(snapshot.link)) add(clock, link_text(snapshot.link, lang_));
}

void PlainLines::add_session(const SessionView& session, const std::string& clock) {
    if (session_.is_news(session.state)) add(clock, session_text(session.state, lang_));
    if (holding_.is_news(session.holding)) {
        add(clock,
            session.holding
                ? in(lang_, "Waiting for the launcher to come back", "Ждём возвращения лаунчера")
                : in(lang_, "No longer waiting for the launcher", "Больше не\u00A0ждём лаунчер"));
    }
    add_picture(std::exchange(picture_, session.picture), session, clock);
    std::string stream = stream_text(session, lang_);
    if (stream != stream_ && !stream.empty()) add(clock, stream);
    stream_ = std::move(stream);
}

void PlainLines::add_closed_port(const ClosedPort& closed, const std::string& clock) {
    const ClosedPort before = std::exchange(closed_port_, closed);
    if (closed == before) return;
    // Of a busy port the alert tells.
    if (closed.error != 0 && closed.error != EADDRINUSE) {
        add(clock, "! " + closed_port_text(closed, lang_));
    } else if (closed.error == 0 && before.error != EADDRINUSE) {
        add(clock, in(lang_, "Port ", "Порт ") + std::to_string(before.port) +
                       in(lang_, " is open", " открыт"));
    }
}

void PlainLines::add_picture(PictureState before, const SessionView& session,
                             const std::string& clock) {
    if (session.picture == before) return;
    switch (session.picture) {
        case PictureState::AwaitingOwner:
            add(clock,
                in(lang_, "Waiting for the screen to be shared: confirm the window on this PC",
                   "Ждём разрешения показать экран: подтвердите окно на\u00A0этом ПК"));
            return;
        case PictureState::Lost:
            add(clock, in(lang_, "The screen can't be captured, mouse and keyboard are off",
                          "Экран не\u00A0захватить, мышь и\u00A0клавиатура отключены"));
            return;
        case PictureState::Fine:
            if (before == PictureState::Lost && session.state == SessionState::Streaming) {
                add(clock, in(lang_, "The screen is captured again", "Экран снова захвачен"));
            }
            return;
    }
}

void PlainLines::add_alert(Alert alert, const std::string& clock, const Snapshot& snapshot) {
    alerts_.at(static_cast<size_t>(alert)) = true;
    const AlertReason& reason = snapshot.alert_reason;
    if (alert == Alert::PortBusy) busy_port_ = snapshot.busy_port;
    if (alert == Alert::UinputDenied) alert_reason_.uinput_absent = reason.uinput_absent;
    if (alert == Alert::CaptureFailed) alert_reason_.capture = reason.capture;
    add(clock, "! " + alert_text(alert, lang_, host_, snapshot.busy_port, reason));
}

void PlainLines::add_alerts(const Snapshot& snapshot, const std::string& clock) {
    for (size_t i = 0; i < kAlertCount; ++i) {
        const auto alert = static_cast<Alert>(i);
        const bool told = alerts_[i] &&
                          (alert != Alert::PortBusy || busy_port_ == snapshot.busy_port) &&
                          (alert != Alert::UinputDenied ||
                           alert_reason_.uinput_absent == snapshot.alert_reason.uinput_absent) &&
                          (alert != Alert::CaptureFailed ||
                           alert_reason_.capture == snapshot.alert_reason.capture);
        if (snapshot.alerts[i]) {
            if (!told) add_alert(alert, clock, snapshot);
        } else if (std::exchange(alerts_[i], false)) {
            add(clock,
                in(lang_, "Resolved: ", "Устранено: ") + alert_title(alert, lang_, busy_port_));
        }
    }
}

}  // namespace ox::tui
