#include "tui/screen/plain_screen.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/clock.h"
#include "base/text.h"

namespace ox::tui {
namespace {

// A reader that lags a little still gets the final lines.
constexpr std::chrono::milliseconds kFinalFlush{50};

Text link_text(LinkState link) {
    switch (link) {
        case LinkState::None:
            return {"Not connected to the platform", "Нет связи с\u00A0платформой"};
        case LinkState::Connected:
            return {"The platform link is up", "Связь с\u00A0платформой есть"};
        case LinkState::Reconnecting:
            return {"The platform link is down, reconnecting",
                    "Связи с\u00A0платформой нет, переподключаемся"};
        case LinkState::Standalone:
            return {"Standalone mode, waiting for launchers", "Автономный режим, ждём лаунчер"};
    }
    return {"", ""};
}

Text session_text(SessionState state) {
    switch (state) {
        case SessionState::None:
            return {"The session is over", "Сессия завершена"};
        case SessionState::Preparing:
            return {"Preparing a session", "Готовим сессию"};
        case SessionState::Streaming:
            return {"The session is running", "Сессия идёт"};
    }
    return {"", ""};
}

// Empty until the encoder is known.
std::string stream_text(const SessionView& session, Lang lang) {
    if (session.state != SessionState::Streaming || session.encoder.empty()) return {};
    std::string text = Text{"Streaming", "Трансляция"}.in(lang);
    if (!session.launcher.empty()) text += Text{" to ", " на\u00A0"}.in(lang) + session.launcher;
    return text + ": " + session.codec + " " + std::to_string(session.width) + "x" +
           std::to_string(session.height) + ", " + std::to_string(session.fps) +
           Text{" fps, ", "\u00A0кадр/с, "}.in(lang) + session.encoder;
}

}  // namespace

std::vector<std::string> PlainLines::take_new_lines(const Snapshot& snapshot, int64_t now_s) {
    const std::string now = clock_text(now_s);
    add_identity(snapshot);
    add_events(snapshot);
    if (link_.needs_line(snapshot.link)) add(now, link_text(snapshot.link));
    if (snapshot.link == LinkState::Standalone) add_own_address(snapshot.own_address, now);
    add_session(snapshot.session, now);
    add_closed_port(snapshot.closed_port, now);
    add_alerts(snapshot, now);
    return std::exchange(lines_, {});
}

void PlainLines::add(const std::string& clock, const std::string& text) {
    lines_.push_back(text::printable(clock + " " + text));
}

void PlainLines::add_identity(const Snapshot& snapshot) {
    if (std::exchange(identified_, true)) return;
    std::string line = "orvex-agent " + snapshot.version;
    if (!snapshot.host.empty()) line += Text{" on ", " на\u00A0"}.in(lang_) + snapshot.host;
    if (!snapshot.log_path.empty()) {
        line += Text{", log: ", ", лог: "}.in(lang_) + snapshot.log_path;
    }
    lines_.push_back(text::printable(line));
}

void PlainLines::add_own_address(const OwnAddress& own, const std::string& now) {
    if (std::exchange(own_address_, own) == own || own.ip.empty()) return;
    add(now, Text{"Launchers connect to ", "Адрес для\u00A0лаунчера: "}.in(lang_) +
                 address_text(own, lang_));
    add(now, play_text(own, lang_));
}

void PlainLines::add_events(const Snapshot& snapshot) {
    const uint64_t fresh =
        snapshot.events_total - std::exchange(events_reported_, snapshot.events_total);
    const size_t count = static_cast<size_t>(std::min<uint64_t>(fresh, snapshot.events.size()));
    for (size_t i = snapshot.events.size() - count; i < snapshot.events.size(); ++i) {
        const Event& event = snapshot.events[i];
        mark_reported(event.kind);
        if (event.kind == EventKind::AlertRaised) {
            add_alert(event.alert, event.clock, snapshot);
            continue;
        }
        const std::string text = event_text(event, lang_, event.port);
        if (!text.empty()) {
            add(event.clock, event.detail.empty() ? text : text + ": " + event.detail);
        }
    }
}

void PlainLines::mark_reported(EventKind kind) {
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

void PlainLines::add_session(const SessionView& session, const std::string& clock) {
    if (session_.needs_line(session.state)) add(clock, session_text(session.state));
    if (holding_.needs_line(session.holding)) {
        add(clock, session.holding
                       ? Text{"Waiting for the launcher to come back", "Ждём возвращения лаунчера"}
                       : Text{"No longer waiting for the launcher", "Больше не\u00A0ждём лаунчер"});
    }
    add_picture(std::exchange(picture_, session.picture), session, clock);
    std::string stream = stream_text(session, lang_);
    if (stream != stream_ && !stream.empty()) add(clock, stream);
    stream_ = std::move(stream);
}

void PlainLines::add_closed_port(const ClosedPort& closed, const std::string& clock) {
    const ClosedPort before = std::exchange(closed_port_, closed);
    if (closed == before) return;
    // A busy port has an alert.
    if (closed.error != 0 && closed.error != EADDRINUSE) {
        add(clock, "! " + closed_port_text(closed, lang_));
    } else if (closed.error == 0 && before.error != EADDRINUSE) {
        add(clock, Text{"Port ", "Порт "}.in(lang_) + std::to_string(before.port) +
                       Text{" is open", " открыт"}.in(lang_));
    }
}

void PlainLines::add_picture(PictureState before, const SessionView& session,
                             const std::string& clock) {
    if (session.picture == before) return;
    switch (session.picture) {
        case PictureState::AwaitingOwner:
            return add(clock,
                       Text{"Waiting for the screen to be shared: confirm the window on this PC",
                            "Ждём разрешения показать экран: подтвердите окно на\u00A0этом ПК"});
        case PictureState::Lost:
            return add(clock, Text{"The screen can't be captured, mouse and keyboard are off",
                                   "Экран не\u00A0захватить, мышь и\u00A0клавиатура отключены"});
        case PictureState::Fine:
            if (before == PictureState::Lost && session.state == SessionState::Streaming) {
                add(clock, Text{"The screen is captured again", "Экран снова захвачен"});
            }
            return;
    }
}

void PlainLines::add_alert(Alert alert, const std::string& clock, const Snapshot& snapshot) {
    const uint16_t port = snapshot.busy_port;
    ReportedAlert& reported = alerts_.at(static_cast<size_t>(alert));
    reported = {.title = alert_title(alert, lang_, port),
                .text = alert_text(alert, lang_, host_, port, snapshot.alert_reason)};
    add(clock, "! " + reported.text);
}

void PlainLines::add_alerts(const Snapshot& snapshot, const std::string& clock) {
    for (size_t i = 0; i < kAlertCount; ++i) {
        const auto alert = static_cast<Alert>(i);
        ReportedAlert& reported = alerts_.at(i);
        if (snapshot.alerts.at(i)) {
            const bool is_reported =
                reported.text ==
                alert_text(alert, lang_, host_, snapshot.busy_port, snapshot.alert_reason);
            if (!is_reported) add_alert(alert, clock, snapshot);
        } else if (!std::exchange(reported.text, {}).empty()) {
            add(clock, Text{"Resolved: ", "Устранено: "}.in(lang_) + reported.title);
        }
    }
}

PlainScreen::~PlainScreen() {
    output_.flush_within(kFinalFlush);
}

void PlainScreen::paint(const Snapshot& snapshot) {
    for (const std::string& line : lines_.take_new_lines(snapshot, system_now_s()))
        output_.add(line);
    output_.flush();
}

}  // namespace ox::tui
