#include "tui/screen/layout.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "base/text.h"
#include "tui/screen/layout_sections.h"
#include "tui/screen/session_card.h"

namespace ox::tui {

const Glyphs kFullGlyphs{.corners = {"╭", "╮", "╰", "╯"},
                         .horizontal = "─",
                         .vertical = "│",
                         .dot = "●",
                         .small_dot = "•",
                         .alert = "▲",
                         .meter_full = "━",
                         .meter_empty = "─",
                         .bars = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"}};

const Glyphs kConsoleGlyphs{.corners = {"┌", "┐", "└", "┘"},
                            .horizontal = "─",
                            .vertical = "│",
                            .dot = "•",
                            .small_dot = "•",
                            .alert = "!",
                            .meter_full = "█",
                            .meter_empty = "░",
                            .bars = {" ", "_", "_", "▄", "▄", "▄", "▄", "█", "█"}};

namespace {

constexpr int kMaxWidth = 100;
constexpr int kMaxHeight = 40;
constexpr int kLogoColumns = 64;
constexpr int kAiryRows = 16;   // from here on there is room for empty lines
constexpr int kRoomyRows = 32;  // from here on the session card gets extra space

// How much detail each part gets.
struct Plan {
    bool margin_above = true;
    bool logo = true;
    bool header = true;
    bool airy = true;  ///< empty lines between the parts
    CardPlan card{.box = true, .padded = true, .airy = true, .graph_rows = 3, .details = true};
    AlertDetail alerts = AlertDetail::TitleAndText;
    size_t events = 8;
    int footer = 2;
};

// Details that are given up, in this order, until everything fits.
using Step = void (*)(Plan&);
constexpr Step kSteps[] = {
    [](Plan& plan) { plan.card.padded = false; },
    [](Plan& plan) { plan.events = 7; },
    [](Plan& plan) { plan.events = 6; },
    [](Plan& plan) { plan.events = 5; },
    [](Plan& plan) { plan.card.graph_rows = 1; },
    [](Plan& plan) { plan.events = 4; },
    [](Plan& plan) { plan.events = 3; },
    [](Plan& plan) { plan.footer = 1; },
    [](Plan& plan) { plan.card.airy = false; },
    [](Plan& plan) { plan.events = 2; },
    [](Plan& plan) { plan.margin_above = false; },
    [](Plan& plan) { plan.alerts = AlertDetail::Text; },
    [](Plan& plan) { plan.logo = false; },
    [](Plan& plan) { plan.card.graph_rows = 0; },
    [](Plan& plan) { plan.events = 1; },
    [](Plan& plan) { plan.airy = false; },
    [](Plan& plan) { plan.events = 0; },
    [](Plan& plan) { plan.card.box = false; },
    [](Plan& plan) { plan.footer = 0; },
    [](Plan& plan) { plan.header = false; },
    [](Plan& plan) { plan.alerts = AlertDetail::Title; },
    [](Plan& plan) { plan.card.details = false; },
};

// Builds the layout of one plan after the other; rebuilds only the parts whose details changed.
class Builder {
  public:
    Builder(const Snapshot& board, const View& view, int width)
        : board_(board), view_(view), width_(width) {}

    /// Number of lines that `plan` takes.
    int height(const Plan& plan) {
        follow(plan);
        const int gap = plan.airy ? 1 : 0;
        int total = plan.footer > 0 ? plan.footer + gap : 0;
        total += plan.margin_above ? 1 : 0;
        for (const std::vector<Line>* part : parts_above_footer())
            total += static_cast<int>(part->size()) + gap;
        return total - gap;
    }

    /// The layout of `plan`, cut or filled up to `rows` lines, with the footer at the bottom.
    std::vector<Line> build(const Plan& plan, int rows) {
        follow(plan);
        std::vector<Line> lines(plan.margin_above ? 1 : 0);
        bool first = true;
        for (const std::vector<Line>* part : parts_above_footer()) {
            if (plan.airy && !first) lines.emplace_back();
            first = false;
            lines.insert(lines.end(), part->begin(), part->end());
        }
        lines.resize(static_cast<size_t>(rows));
        std::vector<Line> footer = footer_lines(board_, view_, width_, plan.footer);
        std::move(footer.begin(), footer.end(), lines.end() - plan.footer);
        return lines;
    }

  private:
    void follow(const Plan& plan) {
        const bool first = !plan_;
        if (first) link_ = {link_line(board_, view_, width_)};
        if (first || plan.logo != plan_->logo) {
            header_ = plan.logo ? logo_header(board_, view_, width_)
                                : std::vector<Line>{header_line(board_, view_, width_)};
        }
        if (first || plan.card != plan_->card) {
            card_ = session_card(board_, view_, width_, plan.card);
        }
        if (first || plan.alerts != plan_->alerts || plan.airy != plan_->airy) {
            alerts_ = alert_lines(board_, view_, width_, plan.alerts, plan.airy);
        }
        if (first || plan.events != plan_->events) {
            events_ = event_lines(board_, view_, width_, plan.events);
        }
        plan_ = plan;
    }
    [[nodiscard]] std::vector<const std::vector<Line>*> parts_above_footer() const {
        std::vector<const std::vector<Line>*> parts{&link_, &card_, &alerts_, &events_};
        if (plan_->header) parts.insert(parts.begin(), &header_);
        std::erase_if(parts, [](const std::vector<Line>* part) { return part->empty(); });
        return parts;
    }

    const Snapshot& board_;
    const View& view_;
    int width_;
    std::optional<Plan> plan_;  // that the parts are built for
    std::vector<Line> header_;
    std::vector<Line> link_;
    std::vector<Line> card_;
    std::vector<Line> alerts_;
    std::vector<Line> events_;
};

// The richest plan of at most `rows` lines, else the poorest one.
Plan fitting_plan(Builder& builder, int width, int rows) {
    Plan full;
    full.logo = width >= kLogoColumns;
    full.airy = full.margin_above = full.card.airy = rows >= kAiryRows;
    full.card.padded = rows >= kRoomyRows;
    full.card.graph_rows = rows >= kRoomyRows ? 3 : 1;

    std::array<bool, std::size(kSteps)> given_up{};
    const auto plan = [&] {
        Plan result = full;
        for (size_t i = 0; i < given_up.size(); ++i) {
            if (given_up.at(i)) kSteps[i](result);
        }
        return result;
    };
    const auto fits = [&] { return builder.height(plan()) <= rows; };
    size_t taken = 0;
    while (!fits() && taken < given_up.size())
        given_up.at(taken++) = true;
    if (!fits()) return plan();
    // Take steps back that turned out not to be needed.
    while (taken-- > 0) {
        given_up.at(taken) = false;
        given_up.at(taken) = !fits();
    }
    return plan();
}

Snapshot with_printable_texts(Snapshot board) {
    const auto clean = [](std::string& text) { text = text::printable(text); };
    for (std::string* text :
         {&board.version, &board.host, &board.log_path, &board.gpu, &board.session.id,
          &board.session.launcher, &board.session.encoder, &board.session.codec}) {
        clean(*text);
    }
    for (Event& event : board.events) {
        clean(event.clock);
        clean(event.detail);
    }
    return board;
}

int margin_for(int columns) {
    if (columns >= 60) return 2;
    return columns >= 30 ? 1 : 0;
}

}  // namespace

std::vector<Line> lay_out(const Snapshot& snapshot, const View& view) {
    const int columns = std::max(view.size.columns, 1);
    const int rows = std::max(view.size.rows, 1);
    const int width = std::min(columns - 2 * margin_for(columns), kMaxWidth);
    const int left = (columns - width) / 2;
    const int height = std::min(rows, kMaxHeight);
    const int above = (rows - height) / 3;

    const Snapshot board = with_printable_texts(snapshot);
    std::vector<Line> lines(static_cast<size_t>(above));
    Builder builder(board, view, width);
    for (const Line& line : builder.build(fitting_plan(builder, width, height), height)) {
        Line placed;
        if (!line.empty()) placed.pad_to(left).add(line.clipped(width));
        lines.push_back(std::move(placed));
    }
    return lines;
}

}  // namespace ox::tui
