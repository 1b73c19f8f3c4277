// The agent in a terminal: its screen, and the terminal's state after its end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "e2e/agent.h"
#include "support/eventually.h"
#include "support/terminal_model.h"

namespace ox::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// The real program in a terminal of its own.
struct AgentInTerminal {
    /// `variable` as in ChildProcess::Options.
    explicit AgentInTerminal(const std::string& variable = "OX_TUI")
        : agent({.environment = {"OX_TUI", "TERM=xterm", "OX_LANG=ru", variable},
                 .terminal = window.path()}) {}

    void take_output() {
        const std::string bytes = window.read_all();
        written += bytes;
        terminal.feed(bytes);
    }
    /// Waits until the terminal shows `text`.
    bool shows(const std::string& text) {
        return eventually(
            [&] {
                take_output();
                return terminal.text().find(text) != std::string::npos;
            },
            kPatience);
    }
    std::optional<int> end_by(int signal) {
        agent.process().signal(signal);
        const auto status = agent.process().wait(kPatience);
        take_output();
        return status;
    }
    [[nodiscard]] bool is_restored() {
        return !terminal.alternate_screen() && terminal.cursor_visible() && terminal.wraps() &&
               same_modes(window.modes(), modes_before);
    }

    PseudoTerminal window{80, 24};
    TerminalModel terminal{80, 24};
    std::string written;
    termios modes_before = window.modes();
    Agent agent;
};

TEST(ScreenOfTheAgent, TheTerminalIsRestoredAfterAnySignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGALRM}) {
        SCOPED_TRACE(signal);
        AgentInTerminal agent;
        ASSERT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР")) << agent.terminal.text();
        EXPECT_FALSE(agent.is_restored());
        EXPECT_TRUE(agent.terminal.alternate_screen());
        const tcflag_t flags = agent.window.modes().c_lflag;
        EXPECT_EQ(flags & static_cast<tcflag_t>(ECHO | ICANON | ISIG), tcflag_t{ISIG})
            << "nothing typed is shown, but Ctrl+C stops";
        const auto status = agent.end_by(signal);
        const bool stops = signal == SIGINT || signal == SIGTERM || signal == SIGHUP;
        // A sanitizer has its own status for a crash.
        if (kSlowdown == 1 || (signal != SIGSEGV && signal != SIGABRT)) {
            EXPECT_EQ(status, stops ? 0 : 128 + signal);
        }
        EXPECT_TRUE(agent.is_restored());
        EXPECT_EQ(agent.terminal.unknown(), "");
    }
}

TEST(ScreenOfTheAgent, RepaintsEverythingAfterAStopAndInAnotherSize) {
    AgentInTerminal agent;
    ASSERT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР"));
    agent.agent.process().signal(SIGSTOP);
    agent.take_output();
    // A shell changes the modes and overwrites the picture.
    const termios screen_modes = agent.window.modes();
    termios modes = screen_modes;
    modes.c_lflag |= static_cast<tcflag_t>(ECHO | ICANON);
    ASSERT_EQ(::tcsetattr(agent.window.program.get(), TCSANOW, &modes), 0);
    agent.terminal.feed("\x1B[2J$ fg");
    agent.agent.process().signal(SIGCONT);
    EXPECT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР"));
    EXPECT_EQ(agent.terminal.text().find("$ fg"), std::string::npos);
    EXPECT_TRUE(same_modes(agent.window.modes(), screen_modes));
    agent.terminal.feed("\x1B[2J");
    agent.terminal.resize(40, 12);
    agent.window.resize(40, 12);
    EXPECT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР"));
    EXPECT_EQ(agent.end_by(SIGTERM), 0);
    EXPECT_TRUE(agent.is_restored());
}

TEST(ScreenOfTheAgent, SimpleTerminalsGetPlainLines) {
    for (const char* setting : {"OX_TUI=plain", "TERM=dumb", "TERM=", "TERM"}) {
        SCOPED_TRACE(setting);
        AgentInTerminal agent(setting);
        EXPECT_TRUE(agent.shows("Автономный режим, ждём лаунчер"));
        EXPECT_EQ(agent.end_by(SIGTERM), 0);
        EXPECT_THAT(agent.written, HasSubstr("Останавливаемся"));
        EXPECT_THAT(agent.written, Not(HasSubstr("\x1B")));
    }
}

}  // namespace
}  // namespace ox::test
