#include "tui/screen/plain_screen.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "base/clock.h"
#include "tui/screen/sample_boards.h"

namespace ox::tui {
namespace {

// A board whose events all happen at 14:03, and the lines about it.
struct Journal {
    Journal() {
        board.update([](Snapshot& state) {
            state.version = "0.4.448";
            state.host = "rig";
            state.log_path = "/var/log/agent.log";
        });
    }
    void expect(const std::vector<std::string>& expected) {
        Snapshot snapshot = board.snapshot();
        for (Event& event : snapshot.events)
            event.clock = "14:03";
        std::vector<std::string> fresh = lines.take_new_lines(snapshot, test::kNow);
        const std::string now = clock_text(test::kNow);
        for (std::string& line : fresh) {
            if (line.starts_with(now)) line.replace(0, now.size(), "now");
        }
        EXPECT_EQ(fresh, expected);
    }
    template <typename Change>
    void expect_after(Change&& change, const std::vector<std::string>& expected) {
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
    journal.expect_after(
        [](Snapshot& s) {
            s.own_address = {"10.0.0.9", 47998};
        },
        {"now Launchers connect to 10.0.0.9, port base 47998",
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
    journal.expect(
        {"now ! The system doesn't let the agent open port 3. Set PORT_BASE to 1024 or "
         "more in start-agent."});
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
