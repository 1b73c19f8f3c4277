#include "tui/screen/layout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "base/text.h"
#include "tui/screen/sample_boards.h"

namespace ox::tui {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

View view(int columns, int rows, Lang lang = Lang::English) {
    return {
        .size = {.columns = columns, .rows = rows}, .lang = lang, .now_s = test::kNow, .pid = 4711};
}

std::string text_of(const Line& line) {
    std::string text;
    for (const Span& span : line.spans())
        text += span.text;
    return text;
}

// All lines, with every run of spaces and line ends as one space.
std::string running_text(const std::vector<Line>& lines) {
    std::string text;
    for (const Line& line : lines) {
        for (const char c : text_of(line) + " ") {
            if (c != ' ' || !text.ends_with(' ')) text += c;
        }
    }
    return text;
}

void expect_shown(const std::vector<std::string>& facts, const Snapshot& board, const View& at) {
    const std::string shown = running_text(lay_out(board, at));
    for (const std::string& fact : facts)
        EXPECT_THAT(shown, HasSubstr(fact));
}

Snapshot with(PictureState picture, SessionState state, Snapshot board = test::streaming_board()) {
    board.session.picture = picture;
    board.session.state = state;
    return board;
}

std::vector<Snapshot> boards_of_all_states() {
    Snapshot reconnecting = test::connected_board();
    reconnecting.link = LinkState::Reconnecting;
    return {Snapshot{},
            test::connected_board(),
            reconnecting,
            with(PictureState::Fine, SessionState::Preparing, test::connected_board()),
            with(PictureState::AwaitingOwner, SessionState::Preparing, test::connected_board()),
            test::streaming_board(),
            with(PictureState::Lost, SessionState::Streaming),
            test::holding_board(),
            test::nasty_board()};
}

TEST(Layout, NeverExceedsTheTerminal) {
    const auto check = [](const Snapshot& board, const View& at) {
        const std::vector<Line> lines = lay_out(board, at);
        ASSERT_LE(static_cast<int>(lines.size()), at.size.rows);
        for (const Line& line : lines) {
            const std::string text = text_of(line);
            ASSERT_LE(text::width(text), at.size.columns)
                << at.size.columns << "x" << at.size.rows << ": " << text;
            ASSERT_EQ(text::width(text), line.width());
            ASSERT_EQ(text::printable(text), text);
        }
    };
    for (const Snapshot& board : boards_of_all_states()) {
        for (int n = 1; n <= 300; n += n < 45 ? 1 : 13) {
            const Lang lang = n % 2 ? Lang::English : Lang::Russian;
            for (const int other : {1, 4, 12, 24, 40, 80, 300}) {
                check(board, view(n, other, lang));
                check(board, view(other, n, lang));
            }
        }
    }
}

TEST(Layout, EveryAlertIsReadableInFullAt80x24) {
    std::vector<std::vector<Alert>> sets{
        {Alert::NvidiaDriverMissing, Alert::CaptureFailed, Alert::PortBusy, Alert::UinputDenied},
        test::all_alerts()};
    for (const Alert alert : test::all_alerts())
        sets.push_back({alert});
    for (const Lang lang : {Lang::English, Lang::Russian}) {
        for (const Snapshot& board : boards_of_all_states()) {
            for (const std::vector<Alert>& alerts : sets) {
                const Snapshot alarmed = test::with_alerts(board, alerts);
                std::vector<std::string> facts;
                for (const Alert alert : alerts)
                    facts.push_back(alert_text(alert, lang, Host::Desktop, 48'001));
                expect_shown(facts, alarmed, view(80, 24, lang));
            }
        }
    }
}

TEST(Layout, SmallTerminalKeepsLinkSessionAndAlerts) {
    const std::vector<Alert> alerts{Alert::CaptureFailed, Alert::PortBusy, Alert::SecondAgent};
    const Snapshot board = test::with_alerts(test::streaming_board(), alerts);
    std::vector<std::string> facts{"Платформа на\u00A0связи", "ИГРОК ПОДКЛЮЧЁН",
                                   "23,4\u00A0Мбит/с"};
    for (const Alert alert : alerts)
        facts.push_back(alert_title(alert, Lang::Russian, 48'001));
    expect_shown(facts, board, view(40, 12, Lang::Russian));
    // The most important line is given up last.
    expect_shown({"Platform connected"}, board, view(40, 1));
}

TEST(Layout, ShowsAStreamAHoldAndAClosedPort) {
    const View english = view(80, 24);
    const View russian = view(80, 24, Lang::Russian);
    expect_shown({"rig", "Some GPU", "0.4.448", "Platform connected 1 h 05 min", "PLAYER CONNECTED",
                  " 1:02:05 ", "2560×1440 · 120 fps · HEVC · NVENC", "player 10.0.0.5",
                  "23.4 Mbit/s", "119.2 fps", "17 ms", "0.3 %", "Session ended after 12 min",
                  "/var/log/agent.log", "Ctrl+C stops the agent", "kill -USR1 4711"},
                 test::streaming_board(), english);
    expect_shown({"ИГРОК ОТКЛЮЧИЛСЯ", "Держим сессию ещё 42\u00A0с"}, test::holding_board(),
                 russian);
    Snapshot closed = test::connected_board();
    closed.closed_port = {3, EACCES};
    expect_shown({"NOBODY CAN CONNECT", closed_port_text(closed.closed_port, Lang::English)},
                 closed, view(100, 24));
    Snapshot standalone = test::connected_board();
    standalone.link = LinkState::Standalone;
    standalone.own_address = {"10.0.0.9", 48110};
    expect_shown({"WAITING FOR A LAUNCHER", "this PC now: 10.0.0.9, port base 48110.",
                  "From another PC: orvex-play 10.0.0.9:48110"},
                 standalone, view(100, 24));
    standalone.closed_port = {48113, EADDRINUSE};
    EXPECT_THAT(running_text(lay_out(standalone, view(100, 24))), Not(HasSubstr("orvex-play")));
    for (const SessionState state : {SessionState::Preparing, SessionState::Streaming}) {
        expect_shown({"ПОДТВЕРДИТЕ НА\u00A0ЭТОМ ПК", "показе экрана."},
                     with(PictureState::AwaitingOwner, state), russian);
    }
    expect_shown({"Mouse and keyboard are off"}, with(PictureState::Lost, SessionState::Streaming),
                 english);

    Snapshot unknown = test::streaming_board();
    unknown.session.rtt_ms = unknown.session.loss_pct = -1;
    expect_shown({"— ms"}, unknown, english);
    EXPECT_THAT(running_text(lay_out(unknown, view(40, 12))), Not(HasSubstr("loss")));
}

}  // namespace
}  // namespace ox::tui
