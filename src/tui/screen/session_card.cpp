#include "tui/screen/session_card.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/text.h"
#include "tui/board/messages.h"
#include "tui/screen/session_metrics.h"

namespace ox::tui {
namespace {

constexpr Style kDim{.tone = Tone::Dim};
constexpr Style kFaint{.tone = Tone::Faint};
constexpr Style kStrong{.bold = true};

// Headline of the session card.
Text session_title(const Snapshot& snapshot) {
    const SessionView& session = snapshot.session;
    if (session.state != SessionState::None && session.picture == PictureState::AwaitingOwner) {
        return {"CONFIRM ON THIS PC", "ПОДТВЕРДИТЕ НА\u00A0ЭТОМ ПК"};
    }
    switch (session.state) {
        case SessionState::Preparing:
            return {"PREPARING A SESSION", "ГОТОВИМ СЕССИЮ"};
        case SessionState::Streaming:
            if (session.holding) return {"PLAYER DROPPED", "ИГРОК ОТКЛЮЧИЛСЯ"};
            return session.picture == PictureState::Lost
                       ? Text{"NO PICTURE", "НЕТ ИЗОБРАЖЕНИЯ"}
                       : Text{"PLAYER CONNECTED", "ИГРОК ПОДКЛЮЧЁН"};
        case SessionState::None:
            break;
    }
    if (snapshot.closed_port.error != 0) {
        return {"NOBODY CAN CONNECT", "ПОДКЛЮЧИТЬСЯ НЕЛЬЗЯ"};
    }
    switch (snapshot.link) {
        case LinkState::Connected:
            return {"WAITING FOR A PLAYER", "ЖДЁМ ИГРОКА"};
        case LinkState::Standalone:
            return {"WAITING FOR A LAUNCHER", "ЖДЁМ ЛАУНЧЕР"};
        case LinkState::None:
        case LinkState::Reconnecting:
            break;
    }
    return {"NO SESSION", "НЕТ СЕССИИ"};
}

// What the owner has to know about the picture; empty when it is fine.
Text picture_hint(PictureState picture) {
    switch (picture) {
        case PictureState::AwaitingOwner:
            return {"Confirm the window that asks to share the screen.",
                    "Подтвердите окно с\u00A0вопросом о\u00A0показе экрана."};
        case PictureState::Lost:
            return {"The screen can't be captured now. Mouse and keyboard are off.",
                    "Экран сейчас не\u00A0захватить. Мышь и\u00A0клавиатура отключены."};
        case PictureState::Fine:
            break;
    }
    return {"", ""};
}

Text idle_hint(LinkState link) {
    switch (link) {
        case LinkState::Connected:
            return {"The next session starts by itself.", "Следующая сессия начнётся сама."};
        case LinkState::Standalone:
            return {"A launcher can connect to this PC now.",
                    "Лаунчер может подключиться к\u00A0этому ПК."};
        case LinkState::Reconnecting:
            return {"Nobody can rent this PC until the connection is back.",
                    "Пока связи нет, этот ПК нельзя арендовать."};
        case LinkState::None:
            break;
    }
    return {"Nobody can rent this PC until it is connected.",
            "Пока связи нет, этот ПК нельзя арендовать."};
}

std::string reachable_text(const OwnAddress& own, Lang lang) {
    return Text{"A launcher can connect to this PC now: ",
                "Лаунчер может подключиться к\u00A0этому ПК: "}
               .in(lang) +
           address_text(own, lang) + ".";
}

// Is this PC waiting for whoever knows its address and the token?
bool offers_address(const Snapshot& snapshot) {
    return snapshot.session.state == SessionState::None && snapshot.closed_port.error == 0 &&
           snapshot.link == LinkState::Standalone && !snapshot.own_address.ip.empty();
}

// What the owner may want to know or do while nothing is streamed.
std::string session_hint(const Snapshot& snapshot, Lang lang) {
    const SessionView& session = snapshot.session;
    if (session.state != SessionState::None) {
        if (session.picture == PictureState::AwaitingOwner) {
            return picture_hint(session.picture).in(lang);
        }
        return session.launcher.empty()
                   ? Text{"Waiting for the player's launcher.", "Ждём лаунчер игрока."}.in(lang)
                   : Text{"Starting the stream.", "Запускаем поток."}.in(lang);
    }
    if (snapshot.closed_port.error != 0) return closed_port_text(snapshot.closed_port, lang);
    if (offers_address(snapshot)) {
        return reachable_text(snapshot.own_address, lang);
    }
    return idle_hint(snapshot.link).in(lang);
}

// A bar `columns` wide, of which `share` (0..1) is full.
Line meter(double share, int columns, Tone tone, const Glyphs& glyphs) {
    const int full = static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * columns));
    Line line;
    for (int i = 0; i < columns; ++i) {
        line.add(i < full ? glyphs.meter_full : glyphs.meter_empty,
                 {.tone = i < full ? tone : Tone::Faint});
    }
    return line;
}

class Card {
  public:
    Card(const Snapshot& board, const View& view, int width, const CardPlan& plan)
        : board_(board), session_(board.session), view_(view), plan_(plan) {
        inner_ = width - (plan.box ? 4 : 2);
        width_ = width;
    }

    std::vector<Line> build() {
        if (plan_.details) add_body();
        if (plan_.box && plan_.padded) {
            body_.emplace(body_.begin());
            body_.emplace_back();
        }
        std::vector<Line> lines;
        lines.push_back(plan_.box ? top_edge() : bare_headline());
        for (const Line& line : body_) {
            if (!plan_.box) {
                lines.push_back(Line("  ", {}).add(line));
                continue;
            }
            Line framed(view_.glyphs->vertical, kFaint);
            framed.add(" ").add(line.clipped(inner_)).pad_to(width_ - 1);
            lines.push_back(framed.add(view_.glyphs->vertical, kFaint));
        }
        if (plan_.box) lines.push_back(bottom_edge());
        return lines;
    }

  private:
    [[nodiscard]] Tone state_tone() const {
        if (session_.holding || session_.picture != PictureState::Fine) return Tone::Warn;
        if (session_.state == SessionState::Streaming) return Tone::Good;
        if (session_.state == SessionState::Preparing) return Tone::Accent;
        return board_.closed_port.error != 0 ? Tone::Bad : Tone::Dim;
    }

    [[nodiscard]] Line headline() const {
        const Tone tone = state_tone();
        Line line(view_.glyphs->dot, {.tone = tone});
        const Tone title = tone == Tone::Dim ? Tone::Text : tone;
        return line.add(" ").add(session_title(board_).in(view_.lang),
                                 {.tone = title, .bold = true});
    }

    // How long the session has been in its state.
    [[nodiscard]] Line elapsed() const {
        if (session_.state == SessionState::None || session_.since_s == 0) return {};
        return {stopwatch(view_.now_s - session_.since_s), kStrong};
    }

    [[nodiscard]] Line bare_headline() const { return spread(headline(), elapsed(), width_); }

    // The headline is part of the frame's upper edge.
    [[nodiscard]] Line top_edge() const {
        const Glyphs& glyphs = *view_.glyphs;
        Line line(glyphs.corners[0], kFaint);
        line.add(glyphs.horizontal, kFaint).add(" ").add(headline().clipped(width_ - 6)).add(" ");
        Line right;
        const Line time = elapsed();
        if (!time.empty() && line.width() + time.width() + 5 <= width_) {
            right.add(" ").add(time).add(" ").add(glyphs.horizontal, kFaint);
        }
        right.add(glyphs.corners[1], kFaint);
        while (line.width() < width_ - right.width())
            line.add(glyphs.horizontal, kFaint);
        return line.add(right);
    }

    [[nodiscard]] Line bottom_edge() const {
        Line line(view_.glyphs->corners[2], kFaint);
        while (line.width() < width_ - 1)
            line.add(view_.glyphs->horizontal, kFaint);
        return line.add(view_.glyphs->corners[3], kFaint);
    }

    void add_body() {
        if (session_.state != SessionState::Streaming) {
            add_hint();
            return;
        }
        for (const std::string& line :
             text::wrap(picture_hint(session_.picture).in(view_.lang), inner_)) {
            body_.emplace_back(line, Style{});
        }
        if (session_.holding) {
            add_hold();
            gap();
            add_format();
            return;
        }
        add_format();
        gap();
        add_metrics();
    }

    void gap() {
        if (plan_.airy) body_.emplace_back();
    }

    void add_hint() {
        const Line player(session_.launcher, kDim);
        for (const std::string& line : text::wrap(session_hint(board_, view_.lang), inner_)) {
            body_.emplace_back(line, kDim);
        }
        if (!body_.empty()) body_.back() = spread(body_.back(), player, inner_, 24);
        if (!offers_address(board_)) return;
        for (const std::string& line :
             text::wrap(play_text(board_.own_address, view_.lang), inner_)) {
            body_.emplace_back(line, kDim);
        }
    }

    void add_hold() {
        const int64_t left = std::max<int64_t>(session_.hold_until_s - view_.now_s, 0);
        const Text before{"Holding the session for ", "Держим сессию ещё "};
        const Text after{" more", ""};
        Line line(before.in(view_.lang) + duration_words(left, view_.lang) + after.in(view_.lang),
                  {});
        const int room = inner_ - line.width() - 2;
        const int64_t whole = hold_length();
        if (whole > 0 && room >= 8) {
            line.pad_to(line.width() + 2);
            line.add(meter(static_cast<double>(left) / static_cast<double>(whole), room, Tone::Warn,
                           *view_.glyphs));
        }
        body_.push_back(line.clipped(inner_));
    }

    // Duration of the whole hold; 0 when the event that began it is gone.
    [[nodiscard]] int64_t hold_length() const {
        for (auto event = board_.events.rbegin(); event != board_.events.rend(); ++event) {
            if (event->kind == EventKind::PlayerDropped) return event->value;
        }
        return 0;
    }

    void add_format() {
        std::vector<Line> items;
        items.emplace_back(std::to_string(session_.width) + "×" + std::to_string(session_.height),
                           Style{});
        // Without graphs the measured rate stands right below.
        if (plan_.graph_rows > 0 || session_.holding) {
            items.emplace_back(
                std::to_string(session_.fps) + Text{" fps", "\u00A0кадр/с"}.in(view_.lang),
                Style{});
        }
        if (!session_.codec.empty()) items.emplace_back(session_.codec, Style{});
        if (!session_.encoder.empty()) items.emplace_back(session_.encoder, Style{});
        const std::vector<Line> lines = flow(items, inner_);
        const size_t first = body_.size();
        body_.insert(body_.end(), lines.begin(), lines.end());
        Line player;
        if (!session_.launcher.empty()) {
            player.add(Text{"player ", "игрок "}.in(view_.lang), kDim).add(session_.launcher);
        }
        body_.at(first) = spread(body_.at(first), player, inner_, lines.front().width());
    }

    void add_metrics() {
        const std::vector<Line> lines =
            plan_.graph_rows > 0
                ? metric_graphs(session_, view_, inner_, plan_.graph_rows, plan_.airy)
                : metric_summary(session_, view_, inner_);
        body_.insert(body_.end(), lines.begin(), lines.end());
    }

    const Snapshot& board_;
    const SessionView& session_;
    const View& view_;
    const CardPlan& plan_;
    int inner_ = 0;
    int width_ = 0;
    std::vector<Line> body_;
};

}  // namespace

std::vector<Line> session_card(const Snapshot& board, const View& view, int width,
                               const CardPlan& plan) {
    return Card(board, view, width, plan).build();
}

}  // namespace ox::tui
