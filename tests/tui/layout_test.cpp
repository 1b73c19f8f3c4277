#include "tui/layout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tui/sample_boards.h"
#include "tui/text.h"

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

// With every run of spaces and line ends as one space.
std::string running_text(const std::vector<Line>& lines) {
    std::string text;
    for (const Line& line : lines) {
        for (const char c : text_of(line) + " ") {
            if (c != ' ' || !text.ends_with(' ')) text += c;
        }
    }
    return text;
}

std::vector<Snapshot> boards_of_all_states() {
    Snapshot reconnecting = test::connected_board();
    reconnecting.link = LinkState::Reconnecting;
    Snapshot preparing = test::connected_board();
    preparing.session.state = SessionState::Preparing;
    Snapshot asking = preparing;
    asking.session.picture = PictureState::AwaitingOwner;
    Snapshot lost = test::streaming_board();
    lost.session.picture = PictureState::Lost;
    return {Snapshot{},
            test::connected_board(),
            reconnecting,
            preparing,
            asking,
            test::streaming_board(),
            lost,
            test::holding_board(),
            test::nasty_board()};
}

TEST(Layout, NothingIsEverOutsideTheTerminal) {
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
        for (int columns = 1; columns <= 300; columns += columns < 45 ? 1 : 13) {
            for (const int rows : {1, 4, 12, 24, 100})
                check(board, view(columns, rows, columns % 2 ? Lang::English : Lang::Russian));
        }
        for (int rows = 1; rows <= 100; rows += rows < 45 ? 1 : 13) {
            for (const int columns : {1, 40, 80, 300})
                check(board, view(columns, rows, rows % 2 ? Lang::English : Lang::Russian));
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
                const std::string shown = running_text(lay_out(alarmed, view(80, 24, lang)));
                for (const Alert alert : alerts) {
                    EXPECT_THAT(shown, HasSubstr(alert_text(alert, lang, Host::Desktop, 48'001)));
                }
            }
        }
    }
}

TEST(Layout, SmallTerminalKeepsLinkSessionAndAlerts) {
    const std::vector<Alert> alerts{Alert::CaptureFailed, Alert::PortBusy, Alert::SecondAgent};
    const Snapshot board = test::with_alerts(test::streaming_board(), alerts);
    const std::string shown = running_text(lay_out(board, view(40, 12, Lang::Russian)));
    for (const char* fact : {"Платформа на\u00A0связи", "ИГРОК ПОДКЛЮЧЁН", "23,4\u00A0Мбит/с"})
        EXPECT_THAT(shown, HasSubstr(fact));
    for (const Alert alert : alerts)
        EXPECT_THAT(shown, HasSubstr(alert_title(alert, Lang::Russian, 48'001)));
    // The most important line is the last to go.
    EXPECT_THAT(running_text(lay_out(board, view(40, 1))), HasSubstr("Platform connected"));
}

TEST(Layout, TellsWhatMattersOfAStreamAHoldAndAClosedPort) {
    const std::string stream = running_text(lay_out(test::streaming_board(), view(80, 24)));
    for (const char* fact :
         {"rig", "Some GPU", "0.4.448", "Platform connected 1 h 05 min", "PLAYER CONNECTED",
          " 1:02:05 ", "2560×1440 · 120 fps · HEVC · NVENC", "player 10.0.0.5", "23.4 Mbit/s",
          "119.2 fps", "17 ms", "0.3 %", "Session ended after 12 min", "/var/log/agent.log",
          "Ctrl+C stops the agent", "kill -USR1 4711"}) {
        EXPECT_THAT(stream, HasSubstr(fact));
    }
    const std::string hold =
        running_text(lay_out(test::holding_board(), view(80, 24, Lang::Russian)));
    EXPECT_THAT(hold, HasSubstr("ИГРОК ОТКЛЮЧИЛСЯ"));
    EXPECT_THAT(hold, HasSubstr("Держим сессию ещё 42\u00A0с"));

    Snapshot closed = test::connected_board();
    closed.closed_port = {3, EACCES};
    const std::string nobody = running_text(lay_out(closed, view(100, 24)));
    for (const std::string& fact :
         {std::string("NOBODY CAN CONNECT"), closed_port_text(closed.closed_port, Lang::English)}) {
        EXPECT_THAT(nobody, HasSubstr(fact));
    }
    Snapshot asking = test::streaming_board();
    asking.session.picture = PictureState::AwaitingOwner;
    for (const SessionState state : {SessionState::Preparing, SessionState::Streaming}) {
        asking.session.state = state;
        const std::string shown = running_text(lay_out(asking, view(80, 24, Lang::Russian)));
        EXPECT_THAT(shown, HasSubstr("ПОДТВЕРДИТЕ НА\u00A0ЭТОМ ПК"));
        EXPECT_THAT(shown, HasSubstr("показе экрана."));
    }
    Snapshot lost = test::streaming_board();
    lost.session.picture = PictureState::Lost;
    EXPECT_THAT(running_text(lay_out(lost, view(80, 24))), HasSubstr("Mouse and keyboard are off"));

    Snapshot unknown = test::streaming_board();
    unknown.session.rtt_ms = unknown.session.loss_pct = -1;
    EXPECT_THAT(running_text(lay_out(unknown, view(80, 24))), HasSubstr("— ms"));
    EXPECT_THAT(running_text(lay_out(unknown, view(40, 12))), Not(HasSubstr("loss")));
}

}  // namespace
}  // namespace ox::tui
