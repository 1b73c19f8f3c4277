#include "tui/screen/plain_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "base/clock.h"
#include "tui/board/clock_text.h"
#include "tui/screen/sample_boards.h"

namespace ox::tui {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A board whose events all happen at 14:03, and the lines told of it.
struct Story {
    Story() {
        board.update([](Snapshot& state) {
            state.version = "0.4.448";
            state.host = "rig";
            state.log_path = "/var/log/agent.log";
        });
    }
    std::vector<std::string> next() {
        Snapshot snapshot = board.snapshot();
        for (Event& event : snapshot.events)
            event.clock = "14:03";
        std::vector<std::string> told = lines.news(snapshot, test::kNow);
        const std::string now = clock_text(test::kNow);
        for (std::string& line : told) {
            if (line.starts_with(now)) line.replace(0, now.size(), "now");
        }
        return told;
    }
    template <typename Change>
    std::vector<std::string> after(Change&& change) {
        board.update(change);
        return next();
    }

    Board board;
    PlainLines lines{Lang::English, Host::Desktop};
};

void start_stream(Snapshot& state) {
    state.session = test::streaming_board().session;
    state.session.since_s = system_now_s() - 90;
}

TEST(PlainLines, SessionOfAStandaloneAgent) {
    Story story;
    story.board.push(EventKind::AgentStarted);
    EXPECT_THAT(story.next(), ElementsAre("orvex-agent 0.4.448 on rig, log: /var/log/agent.log",
                                          "14:03 Agent started"));
    EXPECT_THAT(story.after([](Snapshot& s) { s.link = LinkState::Standalone; }),
                ElementsAre("now Standalone mode, waiting for launchers"));
    const auto prepare = [](Snapshot& s) { s.session.state = SessionState::Preparing; };
    EXPECT_THAT(story.after(prepare), ElementsAre("now Preparing a session"));
    const auto connect = [&](Snapshot& s) {
        start_stream(s);
        story.board.push_locked(EventKind::PlayerConnected, 0);
    };
    story.board.session_ended(false, -1);
    EXPECT_THAT(story.next(), ElementsAre("14:03 The session couldn't start, details in the log"));
    story.board.session_ended(true, 5);
    EXPECT_THAT(story.next(), IsEmpty()) << "there is none";
    EXPECT_THAT(story.after(prepare), ElementsAre("now Preparing a session"));
    EXPECT_THAT(story.after(connect),
                ElementsAre("14:03 The player connected",
                            "now Streaming to 10.0.0.5: HEVC 2560x1440, 120 fps, NVENC"));
    EXPECT_THAT(story.after([](Snapshot& s) { s.session.measured_mbps = 14.8; }), IsEmpty());
    EXPECT_THAT(story.after([&](Snapshot& s) {
        s.session.holding = true;
        story.board.push_locked(EventKind::PlayerDropped, 60);
    }),
                ElementsAre("14:03 The player dropped, holding the session for 1 min"));
    EXPECT_THAT(story.after([](Snapshot& s) { s.session.holding = false; }),
                ElementsAre("now No longer waiting for the launcher"));
    const auto set_picture = [&](PictureState picture) {
        return story.after([=](Snapshot& s) { s.session.picture = picture; });
    };
    EXPECT_THAT(set_picture(PictureState::Lost),
                ElementsAre("now The screen can't be captured, mouse and keyboard are off"));
    EXPECT_THAT(set_picture(PictureState::Fine), ElementsAre("now The screen is captured again"));
    story.board.raise_capture(CaptureTrouble::Black);
    EXPECT_THAT(story.next(), ElementsAre("14:03 ! The player sees a black screen. Unlock the PC "
                                          "and wake its display."));
    story.board.raise_capture(CaptureTrouble::Black);
    EXPECT_THAT(story.next(), IsEmpty());
    story.board.raise_capture(CaptureTrouble::Declined);
    EXPECT_THAT(story.next(), ElementsAre(testing::HasSubstr("was declined")));
    story.board.clear(Alert::CaptureFailed);
    EXPECT_THAT(story.next(), ElementsAre("now Resolved: Screen capture failed"));
    // Over and begun anew between two looks at the board.
    story.board.session_ended(false, 3900);
    EXPECT_THAT(story.after(connect),
                ElementsAre("14:03 Session ended after 1 h 05 min", "14:03 The player connected",
                            "now Streaming to 10.0.0.5: HEVC 2560x1440, 120 fps, NVENC"));
    story.board.session_ended(false, -1);  // the board has watched the time itself
    EXPECT_THAT(story.next(), ElementsAre("14:03 Session ended after 1 min"));
    EXPECT_FALSE(story.board.snapshot().session.holding);
}

TEST(PlainLines, AControlPortThatCannotBeOpened) {
    Story story;
    story.next();
    story.board.control_port_closed(3, EACCES);
    EXPECT_THAT(story.next(), ElementsAre("now ! The system doesn't let the agent open port 3. Set "
                                          "PORT_BASE to 1024 or more in start-agent."));
    story.board.control_port_closed(3, EACCES);
    EXPECT_THAT(story.next(), IsEmpty());
    story.board.control_port_open(3);
    EXPECT_THAT(story.next(), ElementsAre("now Port 3 is open"));
}

TEST(PlainLines, ForeignTextCannotBreakALine) {
    Story story;
    const auto lines = story.after([&](Snapshot& s) {
        s.host = "rig\x1B[2J\nroot";
        s.log_path.clear();
        start_stream(s);
        s.session.launcher = "\x9B evil\r\xFF";
        story.board.push_locked(EventKind::PlayerConnected, 0);
        s.events.back().detail = "from\n\x1B]0;title\a";
    });
    EXPECT_THAT(
        lines,
        ElementsAre("orvex-agent 0.4.448 on rig[2Jroot", "14:03 The player connected: from]0;title",
                    "now Streaming to \uFFFD evil\uFFFD: HEVC 2560x1440, 120 fps, NVENC"));
}

}  // namespace
}  // namespace ox::tui
