#include "tui/screen/session_card.h"

#include <algorithm>
#include <string>

#include "base/text.h"
#include "tui/screen/graph.h"
#include "tui/screen/screen_texts.h"

namespace ox::tui {
namespace {

using screen_texts::in;
using screen_texts::number;

constexpr Style kDim{.tone = Tone::Dim};
constexpr Style kFaint{.tone = Tone::Faint};
constexpr Style kStrong{.bold = true};

// One measured quantity, with what tells whether a reading is good.
struct Quantity {
    const char* label;
    const char* unit;
    int decimals;
    double value;
    float Figures::*reading;
    float top;  ///< of the graph
    Tone (*tone)(float value, float expected);
    float expected = 0.0F;
};

Tone always_fine(float /*value*/, float /*expected*/) {
    return Tone::Accent;
}
Tone rate_tone(float fps, float expected) {
    if (fps < 0.0F || fps >= 0.9F * expected) return Tone::Accent;
    return fps >= 0.6F * expected ? Tone::Warn : Tone::Bad;
}
Tone round_trip_tone(float ms, float /*expected*/) {
    if (ms < 60.0F) return Tone::Accent;
    return ms < 150.0F ? Tone::Warn : Tone::Bad;
}
Tone loss_tone(float percent, float /*expected*/) {
    if (percent < 0.5F) return Tone::Accent;
    return percent < 2.0F ? Tone::Warn : Tone::Bad;
}

float highest(const std::deque<Figures>& history, float Figures::*reading, float least) {
    float most = least;
    for (const Figures& figures : history)
        most = std::max(most, figures.*reading);
    return most;
}

std::vector<Quantity> quantities(const SessionView& session, Lang lang) {
    const auto& history = session.history;
    const auto expected_fps = static_cast<float>(session.fps);
    return {
        {in(lang, "Bit rate", "Битрейт"), in(lang, "Mbit/s", "Мбит/с"), 1, session.measured_mbps,
         &Figures::mbps, highest(history, &Figures::mbps, 1.0F), always_fine},
        {in(lang, "Frame rate", "Кадры"), in(lang, "fps", "кадр/с"), 1, session.measured_fps,
         &Figures::fps, highest(history, &Figures::fps, std::max(expected_fps, 1.0F)), rate_tone,
         expected_fps},
        {in(lang, "Round trip", "Задержка"), in(lang, "ms", "мс"), session.rtt_ms < 10 ? 1 : 0,
         session.rtt_ms, &Figures::rtt_ms, highest(history, &Figures::rtt_ms, 40.0F),
         round_trip_tone},
        {in(lang, "Loss", "Потери"), "%", 1, session.loss_pct, &Figures::loss_pct,
         highest(history, &Figures::loss_pct, 4.0F), loss_tone},
    };
}

Style value_style(const Quantity& q) {
    const Tone tone = q.tone(static_cast<float>(q.value), q.expected);
    return {.tone = tone == Tone::Accent ? Tone::Text : tone, .bold = true};
}

// Items side by side with a separator, in as many lines as it takes.
std::vector<Line> flow(const std::vector<Line>& items, int width) {
    std::vector<Line> lines;
    for (const Line& item : items) {
        if (!lines.empty() && lines.back().width() + 3 + item.width() <= width) {
            lines.back().add(" · ", kFaint).add(item);
        } else {
            lines.push_back(item.clipped(width));
        }
    }
    return lines;
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
        return line.add(" ").add(screen_texts::session_title(board_, view_.lang),
                                 {.tone = title, .bold = true});
    }

    // For how long the player has been connected.
    [[nodiscard]] Line lasted() const {
        if (session_.state == SessionState::None || session_.since_s == 0) return {};
        return {screen_texts::stopwatch(view_.now_s - session_.since_s), kStrong};
    }

    [[nodiscard]] Line bare_headline() const { return spread(headline(), lasted(), width_); }

    // The headline lies in the frame's upper edge.
    [[nodiscard]] Line top_edge() const {
        const Glyphs& glyphs = *view_.glyphs;
        Line line(glyphs.corners[0], kFaint);
        line.add(glyphs.horizontal, kFaint).add(" ").add(headline().clipped(width_ - 6)).add(" ");
        Line right;
        const Line time = lasted();
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
             text::wrap(screen_texts::picture_hint(session_.picture, view_.lang), inner_)) {
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
        add_figures();
    }

    void gap() {
        if (plan_.airy) body_.emplace_back();
    }

    void add_hint() {
        const Line player(session_.launcher, kDim);
        for (const std::string& line :
             text::wrap(screen_texts::session_hint(board_, view_.lang), inner_)) {
            body_.emplace_back(line, kDim);
        }
        if (!body_.empty()) body_.back() = spread(body_.back(), player, inner_, 24);
    }

    void add_hold() {
        const int64_t left = std::max<int64_t>(session_.hold_until_s - view_.now_s, 0);
        Line line(screen_texts::holding(left, view_.lang), {});
        const int room = inner_ - line.width() - 2;
        const int64_t whole = hold_length();
        if (whole > 0 && room >= 8) {
            line.pad_to(line.width() + 2);
            line.add(meter(static_cast<double>(left) / static_cast<double>(whole), room, Tone::Warn,
                           *view_.glyphs));
        }
        body_.push_back(line.clipped(inner_));
    }

    // Of the hold that goes on; 0 when the event that began it is gone.
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
        // Where figures stand right below, the rate that is reached tells enough.
        if (plan_.graph_rows > 0 || session_.holding) {
            items.emplace_back(
                std::to_string(session_.fps) + in(view_.lang, " fps", "\u00A0кадр/с"), Style{});
        }
        if (!session_.codec.empty()) items.emplace_back(session_.codec, Style{});
        if (!session_.encoder.empty()) items.emplace_back(session_.encoder, Style{});
        const std::vector<Line> lines = flow(items, inner_);
        const size_t first = body_.size();
        body_.insert(body_.end(), lines.begin(), lines.end());
        Line player;
        if (!session_.launcher.empty()) {
            player.add(in(view_.lang, "player ", "игрок "), kDim).add(session_.launcher);
        }
        body_.at(first) = spread(body_.at(first), player, inner_, lines.front().width());
    }

    void add_figures() {
        const std::vector<Quantity> all = quantities(session_, view_.lang);
        if (plan_.graph_rows > 0) {
            for (const Quantity& q : all)
                add_row(q);
            return;
        }
        std::vector<Line> items;
        for (const Quantity& q : all) {
            if (q.value < 0) continue;
            items.push_back(Line(number(q.value, q.decimals, view_.lang), value_style(q))
                                .add(std::string("\u00A0") + q.unit, kDim));
            if (q.reading == &Figures::loss_pct) {
                items.back().add(in(view_.lang, " loss", " потерь"), kDim);
            }
        }
        for (Line& line : flow(items, inner_))
            body_.push_back(std::move(line));
    }

    // Label, value, unit and graph, each in its column.
    void add_row(const Quantity& q) {
        constexpr int kLabel = 12;
        constexpr int kValue = 6;
        constexpr int kUnit = 9;
        const std::string value = number(q.value, q.decimals, view_.lang);
        Line line(q.label, kDim);
        line.pad_to(kLabel + std::max(0, kValue - text::width(value)));
        line.add(value, value_style(q)).add(" ").add(q.unit, kDim);
        line.pad_to(kLabel + kValue + kUnit);

        const int columns = inner_ - line.width();
        if (columns < 8) {
            body_.push_back(line);
            return;
        }
        std::vector<GraphPoint> points;
        for (const Figures& figures : session_.history) {
            const float reading = figures.*q.reading;
            points.push_back({reading, q.tone(reading, q.expected)});
        }
        const int rows = q.reading == &Figures::mbps ? plan_.graph_rows : 1;
        std::vector<Line> graph = bar_graph(points, q.top, columns, rows, *view_.glyphs);
        for (const Line& part : graph) {
            body_.push_back(line.add(part));
            line = Line().pad_to(kLabel + kValue + kUnit);
        }
        if (rows > 1) gap();
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
