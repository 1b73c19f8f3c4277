#include "tui/full_screen.h"

#include <gtest/gtest.h>

#include "support/eventually.h"
#include "support/pseudo_terminal.h"
#include "support/redirected_fd.h"
#include "support/terminal_model.h"
#include "tui/output_pipe.h"
#include "tui/sample_boards.h"
#include "tui/screen_runner.h"

namespace ox::tui {
namespace {

TEST(FullScreen, FollowsTheBoardAndTheWindowAndEndsWithWhatWentWrong) {
    const ox::test::PseudoTerminal window(80, 24);
    ox::test::TerminalModel terminal(80, 24);
    const auto shows = [&](const std::string& text) {
        return ox::test::eventually([&] {
            terminal.feed(window.read_all());
            return terminal.text().find(text) != std::string::npos;
        });
    };
    const ox::test::RedirectedFd redirected(STDOUT_FILENO, window.program.get());
    Board board;
    ScreenRunner runner;
    runner.start(Lang::English, board, ColourMode::TrueColour);
    EXPECT_TRUE(shows("Connecting to the platform"));
    EXPECT_EQ(window.modes().c_lflag & static_cast<tcflag_t>(ECHO | ICANON), 0U);
    EXPECT_NE(window.modes().c_lflag & static_cast<tcflag_t>(ISIG), 0U) << "Ctrl+C must stop";

    board.update([](Snapshot& state) { state = test::streaming_board(); });
    EXPECT_TRUE(shows("PLAYER CONNECTED"));
    terminal.resize(40, 12);
    window.resize(40, 12);
    EXPECT_TRUE(shows("23.4\u00A0Mbit/s"));
    EXPECT_TRUE(shows("ORVEX 0.4.448"));

    board.push(EventKind::StoppedOnError);
    runner.stop();
    const std::string end = window.read_all();
    EXPECT_EQ(end.substr(end.rfind("The agent")),
              "The agent stopped on an error: /var/log/agent.log\r\n");
}

TEST(FullScreen, StalledTerminalMissesPicturesButNeverGetsPartsOfThem) {
    const ox::test::OutputPipe pipe;
    pipe.fill();
    Snapshot board = test::streaming_board();
    FullScreen screen(pipe.writer.get(), Lang::English, Host::Desktop, ColourMode::Ansi);
    screen.paint(board);
    // Long enough for several more pictures. A screen that waits would never come back.
    board.session.width = 77'777;
    const auto end = SteadyClock::now() + std::chrono::milliseconds(250);
    while (SteadyClock::now() < end)
        screen.paint(board);
    EXPECT_EQ(pipe.read_all(), "");
    board.session.width = 1234;
    screen.paint(board);
    std::string written;
    ox::test::TerminalModel terminal(80, 24);
    EXPECT_TRUE(ox::test::eventually([&] {
        screen.idle();
        const std::string bytes = pipe.read_all();
        written += bytes;
        terminal.feed(bytes);
        return terminal.text().find("1234×1440") != std::string::npos;
    })) << terminal.text();
    EXPECT_EQ(written.find("77777"), std::string::npos) << "pictures pile up";
    EXPECT_EQ(terminal.unknown(), "");
}

}  // namespace
}  // namespace ox::tui
