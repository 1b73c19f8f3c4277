#include "tui/layout.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string>

#include "tui/layout_sections.h"
#include "tui/session_card.h"
#include "tui/text.h"

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
                            .bars = {" ", "_", "▄", "▄", "▄", "▄", "█", "█", "█"}};

namespace {

constexpr int kWidestText = 100;
constexpr int kTallestPicture = 40;
constexpr int kLogoColumns = 64;
// Below that, lines are too dear to be left empty.
constexpr int kAiryRows = 16;

/// How much detail each part gets.
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

/// What is given up, one thing after the other, until the picture fits.
using Step = void (*)(Plan&);
constexpr Step kSteps[] = {
    [](Plan& plan) { plan.card.padded = false; },
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

std::vector<Line> upper_part(const Snapshot& board, const View& view, int width, const Plan& plan) {
    std::vector<Line> lines;
    const auto add = [&](std::vector<Line> part) {
        if (part.empty()) return;
        if (plan.airy && !lines.empty()) lines.emplace_back();
        std::move(part.begin(), part.end(), std::back_inserter(lines));
    };
    if (plan.header && plan.logo) {
        add(logo_header(board, view, width));
    } else if (plan.header) {
        add({header_line(board, view, width)});
    }
    add({link_line(board, view, width)});
    add(session_card(board, view, width, plan.card));
    add(alert_lines(board, view, width, plan.alerts,
                    plan.airy && plan.alerts == AlertDetail::TitleAndText));
    add(event_lines(board, view, width, plan.events));
    if (plan.margin_above) lines.emplace(lines.begin());
    return lines;
}

// The lower part stands at the bottom, apart from the upper one where there is room.
bool fits(const std::vector<Line>& upper, const Plan& plan, int rows) {
    const int apart = plan.airy && plan.footer > 0 ? 1 : 0;
    return static_cast<int>(upper.size()) + apart + plan.footer <= rows;
}

/// Chooses what is shown in `rows` lines.
class Fitting {
  public:
    Fitting(const Snapshot& board, const View& view, int width, int rows)
        : board_(board), view_(view), width_(width), rows_(rows) {
        full_.logo = width >= kLogoColumns;
        const bool roomy = rows >= kAiryRows;
        full_.airy = full_.margin_above = full_.card.padded = full_.card.airy = roomy;
    }

    std::vector<Line> lines() {
        size_t taken = 0;
        while (!try_plan() && taken < given_up_.size())
            given_up_.at(taken++) = true;
        // The last step may have made more room than was needed.
        while (found_ && taken-- > 0) {
            given_up_.at(taken) = false;
            if (!try_plan()) given_up_.at(taken) = true;
        }
        upper_.resize(static_cast<size_t>(rows_));
        std::vector<Line> footer = footer_lines(board_, view_, width_, plan_.footer);
        std::move(footer.begin(), footer.end(), upper_.end() - plan_.footer);
        return std::move(upper_);
    }

  private:
    // Makes the picture without what is given up. False, and the one before is kept, when it does
    // not fit; when none ever did, it is kept and will be cut.
    bool try_plan() {
        Plan plan = full_;
        for (size_t i = 0; i < given_up_.size(); ++i) {
            if (given_up_.at(i)) kSteps[i](plan);
        }
        std::vector<Line> upper = upper_part(board_, view_, width_, plan);
        const bool good = fits(upper, plan, rows_);
        if (good || !found_) {
            plan_ = plan;
            upper_ = std::move(upper);
        }
        found_ |= good;
        return good;
    }

    const Snapshot& board_;
    const View& view_;
    int width_;
    int rows_;
    Plan full_;
    std::array<bool, std::size(kSteps)> given_up_{};
    bool found_ = false;
    Plan plan_;  // of the lines below
    std::vector<Line> upper_;
};

Snapshot with_printable_texts(Snapshot board) {
    const auto clean = [](std::string& words) { words = text::printable(words); };
    for (std::string* words :
         {&board.version, &board.host, &board.log_path, &board.gpu, &board.session.id,
          &board.session.launcher, &board.session.encoder, &board.session.codec}) {
        clean(*words);
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
    const int width = std::min(columns - 2 * margin_for(columns), kWidestText);
    const int left = (columns - width) / 2;
    const int height = std::min(rows, kTallestPicture);
    const int above = (rows - height) / 3;

    const Snapshot board = with_printable_texts(snapshot);
    std::vector<Line> lines(static_cast<size_t>(above));
    for (const Line& line : Fitting(board, view, width, height).lines()) {
        Line placed;
        if (!line.empty()) placed.pad_to(left).add(line.clipped(width));
        lines.push_back(std::move(placed));
    }
    return lines;
}

}  // namespace ox::tui
