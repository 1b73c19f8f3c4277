#include "tui/screen/layout.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
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

constexpr int kWidestText = 100;
constexpr int kTallestPicture = 40;
constexpr int kLogoColumns = 64;
// Below that, lines are too dear to be left empty.
constexpr int kAiryRows = 16;
// From that on the session may take more than it needs, and does not shrink with each event.
constexpr int kRoomyRows = 32;

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

/// Makes the parts of the picture, each once in every form that is asked for.
class Parts {
  public:
    Parts(const Snapshot& board, const View& view, int width)
        : board_(board), view_(view), width_(width) {}

    /// Lines that the picture of `plan` takes.
    int height(const Plan& plan) {
        const int apart = plan.airy ? 1 : 0;
        int total = plan.footer > 0 ? plan.footer + apart : 0;
        total += plan.margin_above ? 1 : 0;
        for (const std::vector<Line>* part : upper(plan))
            total += static_cast<int>(part->size()) + apart;
        return total - apart;
    }

    /// The picture of `plan`, cut or filled up to `rows` lines; the footer stands at the bottom.
    std::vector<Line> picture(const Plan& plan, int rows) {
        std::vector<Line> lines(plan.margin_above ? 1 : 0);
        bool first = true;
        for (const std::vector<Line>* part : upper(plan)) {
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
    // Those that are not empty, from the top.
    std::vector<const std::vector<Line>*> upper(const Plan& plan) {
        std::vector<const std::vector<Line>*> parts;
        if (plan.header) parts.push_back(&header(plan.logo));
        parts.push_back(&link());
        parts.push_back(&card(plan.card));
        parts.push_back(&alerts(plan.alerts, plan.airy));
        parts.push_back(&events(plan.events));
        std::erase_if(parts, [](const std::vector<Line>* part) { return part->empty(); });
        return parts;
    }

    // Under each key the result of `make()`, called at the first time only.
    template <typename Key, typename Make>
    static const std::vector<Line>& once(std::map<Key, std::vector<Line>>& made, const Key& key,
                                         Make&& make) {
        const auto found = made.find(key);
        return found != made.end() ? found->second : made.emplace(key, make()).first->second;
    }
    const std::vector<Line>& header(bool logo) {
        return once(headers_, logo, [&] {
            return logo ? logo_header(board_, view_, width_)
                        : std::vector<Line>{header_line(board_, view_, width_)};
        });
    }
    const std::vector<Line>& link() {
        return once(links_, 0, [&] { return std::vector<Line>{link_line(board_, view_, width_)}; });
    }
    const std::vector<Line>& card(const CardPlan& plan) {
        const CardKey key(plan.box, plan.padded, plan.airy, plan.graph_rows, plan.details);
        return once(cards_, key, [&] { return session_card(board_, view_, width_, plan); });
    }
    const std::vector<Line>& alerts(AlertDetail detail, bool airy) {
        const bool apart = airy && detail == AlertDetail::TitleAndText;
        return once(alerts_, std::pair(detail, apart),
                    [&] { return alert_lines(board_, view_, width_, detail, apart); });
    }
    const std::vector<Line>& events(size_t count) {
        return once(events_, count, [&] { return event_lines(board_, view_, width_, count); });
    }

    using CardKey = std::tuple<bool, bool, bool, int, bool>;

    const Snapshot& board_;
    const View& view_;
    int width_;
    std::map<bool, std::vector<Line>> headers_;
    std::map<int, std::vector<Line>> links_;
    std::map<CardKey, std::vector<Line>> cards_;
    std::map<std::pair<AlertDetail, bool>, std::vector<Line>> alerts_;
    std::map<size_t, std::vector<Line>> events_;
};

/// The richest plan with a picture of at most `rows` lines; the poorest one when none is so low.
Plan fitting_plan(Parts& parts, int width, int rows) {
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
    const auto fits = [&] { return parts.height(plan()) <= rows; };
    size_t taken = 0;
    while (!fits() && taken < given_up.size())
        given_up.at(taken++) = true;
    if (!fits()) return plan();
    // The last step may have made more room than was needed.
    while (taken-- > 0) {
        given_up.at(taken) = false;
        given_up.at(taken) = !fits();
    }
    return plan();
}

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
    Parts parts(board, view, width);
    for (const Line& line : parts.picture(fitting_plan(parts, width, height), height)) {
        Line placed;
        if (!line.empty()) placed.pad_to(left).add(line.clipped(width));
        lines.push_back(std::move(placed));
    }
    return lines;
}

}  // namespace ox::tui
