// The agent in a terminal: what the owner sees, and what is left when it ends.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "e2e/agent.h"
#include "support/eventually.h"
#include "support/pseudo_terminal.h"
#include "support/terminal_model.h"

namespace ox::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// The real program in a terminal of its own.
class AgentInTerminal {
  public:
    /// `variable` is set in addition, or instead ("NAME=value", or "NAME" to unset).
    explicit AgentInTerminal(const std::string& variable = {})
        : agent_({.environment = with({"OX_TUI", "TERM=xterm", "OX_LANG=ru"}, variable),
                  .terminal = window_.path()}) {}

    /// Waits until the terminal shows `text`.
    bool shows(const std::string& text) {
        return eventually(
            [&] {
                take_output();
                return terminal_.text().find(text) != std::string::npos;
            },
            kPatience);
    }
    /// Waits until the agent has written `text`.
    bool writes(const std::string& text) {
        return eventually(
            [&] {
                take_output();
                return written_.find(text) != std::string::npos;
            },
            kPatience);
    }
    void take_output() {
        const std::string bytes = window_.read_all();
        written_ += bytes;
        terminal_.feed(bytes);
    }
    void forget_written() { written_.clear(); }
    /// As a shell gives it.
    std::optional<int> end_by(int signal) {
        process().signal(signal);
        const auto status = process().wait(kPatience);
        take_output();
        return status;
    }
    [[nodiscard]] bool is_given_back() {
        return !terminal_.alternate_screen() && terminal_.cursor_visible() && terminal_.wraps() &&
               same_modes(window_.modes(), modes_before_);
    }
    [[nodiscard]] const TerminalModel& terminal() const { return terminal_; }
    [[nodiscard]] const std::string& written() const { return written_; }
    [[nodiscard]] PseudoTerminal& window() { return window_; }
    ChildProcess& process() { return agent_.process(); }

  private:
    static std::vector<std::string> with(std::vector<std::string> basis, const std::string& entry) {
        if (!entry.empty()) basis.push_back(entry);
        return basis;
    }

    PseudoTerminal window_{80, 24};
    TerminalModel terminal_{80, 24};
    std::string written_;
    termios modes_before_ = window_.modes();
    Agent agent_;
};

TEST(ScreenOfTheAgent, TerminalIsGivenBackWhateverSignalEndsIt) {
    struct Case {
        int signal;
        int status;
    };
    const Case cases[] = {{SIGINT, 0},
                          {SIGTERM, 0},
                          {SIGHUP, 0},
                          {SIGQUIT, 128 + SIGQUIT},
                          {SIGABRT, 128 + SIGABRT},
                          {SIGSEGV, 128 + SIGSEGV},
                          {SIGALRM, 128 + SIGALRM}};
    for (const auto& [signal, status] : cases) {
        SCOPED_TRACE(signal);
        AgentInTerminal agent;
        ASSERT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР")) << agent.terminal().text();
        EXPECT_FALSE(agent.is_given_back());
        EXPECT_TRUE(agent.terminal().alternate_screen());
        const auto ended = agent.end_by(signal);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // The sanitizer reports a crash its own way.
        if (signal != SIGSEGV && signal != SIGABRT) {
            EXPECT_EQ(ended, status);
        }
#else
        EXPECT_EQ(ended, status);
#endif
        EXPECT_TRUE(agent.is_given_back());
        EXPECT_EQ(agent.terminal().unknown(), "");
    }
}

TEST(ScreenOfTheAgent, PaintsEverythingAnewAfterAStop) {
    AgentInTerminal agent;
    ASSERT_TRUE(agent.shows("ЖДЁМ ЛАУНЧЕР"));
    agent.process().signal(SIGSTOP);
    // As a shell does; and what it has shown meanwhile covers the picture.
    const termios screen_modes = agent.window().modes();
    termios modes = screen_modes;
    modes.c_lflag |= static_cast<tcflag_t>(ECHO | ICANON);
    ASSERT_EQ(::tcsetattr(agent.window().program.get(), TCSANOW, &modes), 0);
    agent.take_output();
    agent.forget_written();
    agent.process().signal(SIGCONT);
    EXPECT_TRUE(agent.writes("\x1B[2J"));
    EXPECT_TRUE(same_modes(agent.window().modes(), screen_modes));
    EXPECT_EQ(agent.end_by(SIGTERM), 0);
    EXPECT_TRUE(agent.is_given_back());
}

TEST(ScreenOfTheAgent, SimpleTerminalsGetPlainLines) {
    for (const char* setting : {"OX_TUI=plain", "TERM=dumb", "TERM=", "TERM"}) {
        SCOPED_TRACE(setting);
        AgentInTerminal agent(setting);
        EXPECT_TRUE(agent.writes("Автономный режим, ждём лаунчер"));
        EXPECT_EQ(agent.end_by(SIGTERM), 0);
        EXPECT_THAT(agent.written(), HasSubstr("Останавливаемся"));
        EXPECT_THAT(agent.written(), Not(HasSubstr("\x1B")));
    }
}

TEST(ScreenOfTheAgent, RedirectedOutputIsPlainLinesInAnyTerminal) {
    Agent agent({.environment = {"OX_TUI", "TERM=xterm", "COLORTERM=truecolor"}});
    EXPECT_TRUE(agent.screen().wait_for("Standalone mode, waiting for launchers", kPatience));
    agent.expect_prompt_stop();
    for (const std::string& line : agent.screen().lines())
        EXPECT_THAT(line, Not(HasSubstr("\x1B")));
}

}  // namespace
}  // namespace ox::test
