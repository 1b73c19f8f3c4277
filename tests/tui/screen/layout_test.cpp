// What the full and the plain screen say about a board.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "base/clock.h"
#include "base/text.h"
#include "tui/screen/layout.h"
#include "tui/screen/plain_screen.h"
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
                std::vector<std::string> facts;
                for (const Alert alert : alerts)
                    facts.push_back(alert_text(alert, lang, Host::Desktop, 48'001));
                expect_shown(facts, test::with_alerts(board, alerts), view(80, 24, lang));
            }
        }
    }
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
    for (const SessionState state : {SessionState::Preparing, SessionState::Streaming})
        expect_shown({"ПОДТВЕРДИТЕ НА\u00A0ЭТОМ ПК", "показе экрана."},
                     with(PictureState::AwaitingOwner, state), russian);
    expect_shown({"Mouse and keyboard are off"}, with(PictureState::Lost, SessionState::Streaming),
                 english);

    Snapshot unknown = test::streaming_board();
    unknown.session.rtt_ms = unknown.session.loss_pct = -1;
    expect_shown({"— ms"}, unknown, english);
    EXPECT_THAT(running_text(lay_out(unknown, view(40, 12))), Not(HasSubstr("loss")));
}

// A board whose events all happen at 14:03, and the lines about it.
struct Journal {
    Journal() {
        board.update([](Snapshot& state) {
            state.version = "0.4.448";
            state.host = "rig";
            state.log_path = "/var/log/agent.log";
        });
    }
    void expect(std::vector<std::string> expected) {
        Snapshot snapshot = board.snapshot();
        for (Event& event : snapshot.events)
            event.clock = "14:03";
        for (std::string& line : expected)
            if (line.starts_with("now")) line.replace(0, 3, clock_text(test::kNow));
        EXPECT_EQ(lines.take_new_lines(snapshot, test::kNow), expected);
    }
    void expect_after(const std::function<void(Snapshot&)>& change,
                      const std::vector<std::string>& expected) {
        board.update(change);
        expect(expected);
    }

    Board board;
    PlainLines lines{Lang::English, Host::Desktop};
};

void prepare(Snapshot& state) {
    state.session.state = SessionState::Preparing;
}

void connect(Snapshot& state) {
    state.session = test::streaming_board().session;
    state.session.since_s = system_now_s() - 90;
    state.add_event(EventKind::PlayerConnected);
}

TEST(PlainLines, SessionOfAStandaloneAgent) {
    const std::string streaming = "now Streaming to 10.0.0.5: HEVC 2560x1440, 120 fps, NVENC";
    Journal journal;
    Board& board = journal.board;
    board.push(EventKind::AgentStarted);
    journal.expect({"orvex-agent 0.4.448 on rig, log: /var/log/agent.log", "14:03 Agent started"});
    journal.expect_after([](Snapshot& s) { s.link = LinkState::Standalone; },
                         {"now Standalone mode, waiting for launchers"});
    const auto find_address = [](Snapshot& s) { s.own_address = {"10.0.0.9", 47998}; };
    journal.expect_after(find_address, {"now Launchers connect to 10.0.0.9, port base 47998",
                                        "now From another PC: orvex-play 10.0.0.9"});
    journal.expect_after(prepare, {"now Preparing a session"});
    board.session_ended(false, -1);
    journal.expect({"14:03 The session couldn't start, details in the log"});
    board.session_ended(true, 5);
    journal.expect({});  // there is none
    journal.expect_after(prepare, {"now Preparing a session"});
    journal.expect_after(connect, {"14:03 The player connected", streaming});
    journal.expect_after([](Snapshot& s) { s.session.measured_mbps = 14.8; }, {});
    const auto hold = [](Snapshot& s) {
        s.session.holding = true;
        s.add_event(EventKind::PlayerDropped, 60);
    };
    journal.expect_after(hold, {"14:03 The player dropped, holding the session for 1 min"});
    journal.expect_after([](Snapshot& s) { s.session.holding = false; },
                         {"now No longer waiting for the launcher"});
    journal.expect_after([](Snapshot& s) { s.session.picture = PictureState::Lost; },
                         {"now The screen can't be captured, mouse and keyboard are off"});
    journal.expect_after([](Snapshot& s) { s.session.picture = PictureState::Fine; },
                         {"now The screen is captured again"});
    // Ended and started again between two snapshots.
    board.session_ended(false, 3900);
    journal.expect_after(
        connect, {"14:03 Session ended after 1 h 05 min", "14:03 The player connected", streaming});
    board.session_ended(false, -1);  // the board measures the time itself
    journal.expect({"14:03 Session ended after 1 min"});
    EXPECT_FALSE(board.snapshot().session.holding);
}

TEST(PlainLines, AnAlertIsReportedAgainOnlyWithAnotherCause) {
    Journal journal;
    Board& board = journal.board;
    journal.expect({"orvex-agent 0.4.448 on rig, log: /var/log/agent.log"});
    board.raise_capture(CaptureTrouble::Black);
    journal.expect({"14:03 ! The player sees a black screen. Unlock the PC and wake its display."});
    board.raise_capture(CaptureTrouble::Black);
    journal.expect({});
    board.raise_capture(CaptureTrouble::Declined);
    journal.expect(
        {"now ! Sharing the screen was declined on this PC. The next session asks "
         "again: choose the screen in the window and confirm."});
    board.clear(Alert::CaptureFailed);
    journal.expect({"now Resolved: Screen capture failed"});
    board.control_port_closed(3, EACCES);
    journal.expect({"now ! " + closed_port_text({3, EACCES}, Lang::English)});
    board.control_port_closed(3, EACCES);
    journal.expect({});
    board.control_port_open(3);
    journal.expect({"now Port 3 is open"});
}

TEST(PlainLines, ForeignTextCannotBreakALine) {
    Journal journal;
    const auto change = [](Snapshot& s) {
        s.host = "rig\x1B[2J\nroot";
        s.log_path.clear();
        connect(s);
        s.session.launcher = "\x9B evil\r\xFF";
        s.events.back().detail = "from\n\x1B]0;title\a";
    };
    journal.expect_after(
        change, {"orvex-agent 0.4.448 on rig[2Jroot", "14:03 The player connected: from]0;title",
                 "now Streaming to \uFFFD evil\uFFFD: HEVC 2560x1440, 120 fps, NVENC"});
}

}  // namespace
}  // namespace ox::tui
