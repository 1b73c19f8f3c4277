#include "tui/screen/layout_sections.h"

#include <algorithm>
#include <array>
#include <string>

#include "base/text.h"
#include "tui/board/messages.h"

namespace ox::tui {
namespace {

constexpr Style kDim{.tone = Tone::Dim};
constexpr Style kFaint{.tone = Tone::Faint};
constexpr Style kStrong{.bold = true};

constexpr int kNarrow = 50;

constexpr std::array<const char*, 3> kLogo{
    "▄█▀▀█▄  ██▀▀█▄  ██  ██  ██▀▀▀▀  ▀█▄▄█▀",
    "██  ██  ██▄▄█▀  ▀█▄▄█▀  ██▀▀▀     ██  ",
    "▀█▄▄█▀  ██  ██    ▀▀    ██▄▄▄▄  ▄█▀▀█▄",
};

Line logo_row(const char* pixels) {
    const int wide = text::width(pixels);
    Line line;
    const std::string_view all = pixels;
    for (size_t at = 0; at < all.size();) {
        const size_t begin = at;
        text::next_cp(all, at);
        const auto shade = static_cast<uint8_t>(line.width() * 255 / wide);
        line.add(all.substr(begin, at - begin),
                 {.tone = Tone::Logo, .bold = false, .shade = shade});
    }
    return line;
}

// A label and a rule up to the right edge.
Line heading(const Line& label, const View& view, int width) {
    Line line = label.clipped(width);
    if (line.width() + 2 <= width) line.add(" ");
    while (line.width() < width)
        line.add(view.glyphs->horizontal, kFaint);
    return line;
}

Text link_text(LinkState link) {
    switch (link) {
        case LinkState::None:
            return {"Connecting to the platform", "Подключаемся к\u00A0платформе"};
        case LinkState::Connected:
            return {"Platform connected", "Платформа на\u00A0связи"};
        case LinkState::Reconnecting:
            return {"Connection lost, reconnecting", "Связь пропала, переподключаемся"};
        case LinkState::Standalone:
            return {"Standalone, no platform", "Автономно, без платформы"};
    }
    return {"", ""};
}

Tone link_tone(LinkState link) {
    switch (link) {
        case LinkState::Connected:
            return Tone::Good;
        case LinkState::Standalone:
            return Tone::Accent;
        case LinkState::None:
        case LinkState::Reconnecting:
            break;
    }
    return Tone::Warn;
}

Tone event_tone(EventKind kind) {
    switch (kind) {
        case EventKind::PlatformConnected:
        case EventKind::PcRented:
        case EventKind::PlayerConnected:
        case EventKind::PlayerBack:
            return Tone::Good;
        case EventKind::PlatformLost:
        case EventKind::PlayerDropped:
            return Tone::Warn;
        case EventKind::SessionNotStarted:
        case EventKind::AlertRaised:
        case EventKind::StoppedOnError:
            return Tone::Bad;
        case EventKind::AgentStarted:
        case EventKind::SessionEnded:
        case EventKind::StreamRelayed:
        case EventKind::StreamDirect:
        case EventKind::Stopping:
            break;
    }
    return Tone::Faint;
}

void add_alert(std::vector<Line>& lines, Alert alert, const Snapshot& board, const View& view,
               int width, AlertDetail detail) {
    const std::string marker = std::string(view.glyphs->alert) + " ";
    const int indent = text::width(marker);
    const auto add_wrapped = [&](const std::string& message, Style style, bool marked) {
        for (const std::string& piece : text::wrap(message, std::max(width - indent, 1))) {
            Line line;
            if (marked) line.add(marker, {.tone = Tone::Bad, .bold = true});
            marked = false;
            lines.push_back(line.pad_to(indent).add(piece, style));
        }
    };
    const std::string title = alert_title(alert, view.lang, board.busy_port);
    if (detail == AlertDetail::Title) {
        lines.push_back(
            Line(marker, {.tone = Tone::Bad, .bold = true}).add(title, kStrong).clipped(width));
        return;
    }
    if (detail == AlertDetail::TitleAndText) add_wrapped(title, kStrong, true);
    add_wrapped(alert_text(alert, view.lang, view.host, board.busy_port, board.alert_reason), {},
                detail == AlertDetail::Text);
}

}  // namespace

std::vector<Line> logo_header(const Snapshot& board, const View& view, int width) {
    std::vector<Line> facts;
    Line host(board.host, {});
    if (!host.empty()) host.add("   ");
    facts.push_back(host.add(clock_text_with_seconds(view.now_s), kStrong));
    if (!board.gpu.empty()) facts.emplace_back(board.gpu, kDim);
    facts.emplace_back("orvex-agent " + board.version, kDim);
    facts.resize(kLogo.size());
    std::vector<Line> lines;
    for (size_t row = 0; row < kLogo.size(); ++row) {
        const Line logo = logo_row(kLogo.at(row));
        lines.push_back(spread(logo, facts[row].clipped(width - logo.width() - 2), width));
    }
    return lines;
}

Line header_line(const Snapshot& board, const View& view, int width) {
    Line name("ORVEX", {.tone = Tone::Logo, .bold = true, .shade = 0});
    if (!board.version.empty()) name.add(" " + board.version, kDim);
    if (!board.host.empty()) name.add("  ").add(board.host);
    return spread(name, Line(clock_text_with_seconds(view.now_s), kStrong), width, 5);
}

Line link_line(const Snapshot& board, const View& view, int width) {
    const Tone tone = link_tone(board.link);
    Line line(view.glyphs->dot, {.tone = tone});
    line.add(" ").add(link_text(board.link).in(view.lang),
                      {.tone = tone == Tone::Warn ? Tone::Warn : Tone::Text});
    Line elapsed;
    if (board.link_since_s != 0) {
        elapsed.add(duration_words(view.now_s - board.link_since_s, view.lang), kDim);
    }
    return spread(line, elapsed, width, line.width());
}

std::vector<Line> alert_lines(const Snapshot& board, const View& view, int width,
                              AlertDetail detail, bool airy) {
    std::vector<Line> lines;
    for (size_t i = 0; i < kAlertCount; ++i) {
        if (!board.alerts.at(i)) continue;
        if (lines.empty()) {
            const Line label(Text{"Needs attention", "Требует внимания"}.in(view.lang),
                             {.tone = Tone::Bad});
            lines.push_back(heading(label, view, width));
        } else if (airy && detail == AlertDetail::TitleAndText) {
            lines.emplace_back();
        }
        add_alert(lines, static_cast<Alert>(i), board, view, width, detail);
    }
    return lines;
}

std::vector<Line> event_lines(const Snapshot& board, const View& view, int width, size_t count) {
    std::vector<Line> lines;
    for (auto event = board.events.rbegin(); event != board.events.rend() && count > 0; ++event) {
        std::string message = event_text(*event, view.lang, event->port);
        if (message.empty()) continue;
        if (!event->detail.empty()) message += ": " + event->detail;
        if (lines.empty()) {
            lines.push_back(heading({Text{"Events", "События"}.in(view.lang), kDim}, view, width));
        }
        const bool newest = lines.size() == 1;
        const char* space = width < kNarrow ? " " : "  ";
        Line line(event->clock, kDim);
        line.add(space).add(view.glyphs->small_dot, {.tone = event_tone(event->kind)}).add(space);
        lines.push_back(line.add(message, newest ? Style{} : kDim).clipped(width));
        --count;
    }
    return lines;
}

std::vector<Line> footer_lines(const Snapshot& board, const View& view, int width, int rows) {
    constexpr int kShortestPath = 16;
    Line stop("Ctrl+C", {});
    stop.add(Text{" stops the agent", " остановит агента"}.in(view.lang), kDim);
    Line log;
    if (!board.log_path.empty()) {
        log.add(Text{"Log  ", "Лог  "}.in(view.lang), kDim);
        const int beside = rows > 1 ? 0 : stop.width() + 2;
        const int room = width - log.width() - beside;
        log = room < kShortestPath && rows == 1
                  ? Line{}
                  : log.add(text::clip_left(board.log_path, room), {});
    }
    if (rows < 1) return {};
    if (rows == 1) return {spread(log.empty() ? stop : log, log.empty() ? Line{} : stop, width)};
    Line panic("kill -USR1 " + std::to_string(view.pid), {});
    panic.add(
        Text{" ends sessions until a restart", " прервёт сессии до\u00A0перезапуска"}.in(view.lang),
        kDim);
    return {log, spread(stop, panic, width, stop.width())};
}

}  // namespace ox::tui
