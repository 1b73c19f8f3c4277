// The screens and their output: no reader may block the agent.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <optional>
#include <string>

#include "base/unique_fd.h"

#include "support/environment.h"
#include "support/eventually.h"
#include "support/terminal_model.h"
#include "tui/screen/full_screen.h"
#include "tui/screen/sample_boards.h"
#include "tui/screen/screen.h"
#include "tui/screen/terminal_output.h"

namespace ox::tui {
namespace {

/// A pipe whose reading end never blocks.
class OutputPipe {
  public:
    OutputPipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        ::fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    }

    /// Puts newlines into the pipe until it takes no more.
    void fill() const {
        const UniqueFd other(::open(("/proc/self/fd/" + std::to_string(writer.get())).c_str(),
                                    O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        while (::write(other.get(), "\n", 1) == 1) {
        }
    }

    /// Everything that is in the pipe, without what `fill` put there.
    [[nodiscard]] std::string read_all() const {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t n = 0; (n = ::read(reader.get(), buffer.data(), buffer.size())) > 0;)
            text.append(buffer.data(), static_cast<size_t>(n));
        text.erase(0, text.find_first_not_of('\n'));
        return text;
    }

    UniqueFd reader;
    UniqueFd writer;
};

TEST(FullScreen, StalledTerminalMissesWholeFramesButNotTheFinalMessage) {
    const OutputPipe pipe;
    pipe.fill();
    Snapshot board = test::streaming_board();
    std::optional<FullScreen> screen(std::in_place, pipe.writer.get(), Lang::English, Host::Desktop,
                                     ColourMode::Ansi);
    screen->paint(board);
    // Long enough for several more frames. A screen that blocks would never return.
    board.session.width = 77'777;
    const auto end = SteadyClock::now() + std::chrono::milliseconds(250);
    while (SteadyClock::now() < end)
        screen->paint(board);
    EXPECT_EQ(pipe.read_all(), "");
    board.session.width = 1234;
    screen->paint(board);
    std::string written;
    ox::test::TerminalModel terminal(80, 24);
    EXPECT_TRUE(ox::test::eventually([&] {
        screen->idle();
        const std::string bytes = pipe.read_all();
        written += bytes;
        terminal.feed(bytes);
        return terminal.text().find("1234×1440") != std::string::npos;
    })) << terminal.text();
    EXPECT_EQ(written.find("77777"), std::string::npos) << "frames queue up";
    EXPECT_EQ(terminal.unknown(), "");
    board.events.back().kind = EventKind::StoppedOnError;
    screen->paint(board);
    screen.reset();
    EXPECT_TRUE(pipe.read_all().ends_with("The agent stopped on an error: /var/log/agent.log\n"));
}

TEST(ScreenRunner, StopsInTimeWhateverStandardOutputDoes) {
    ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);  // NOLINT: the macro casts
    OutputPipe full;
    full.fill();
    OutputPipe broken;
    broken.reader.reset();
    const UniqueFd no_space(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    for (const int fd : {full.writer.get(), broken.writer.get(), no_space.get(), -1}) {
        const ox::test::RedirectedFd redirected(STDOUT_FILENO, fd);
        Board board;
        ScreenRunner runner;
        runner.start(Lang::Russian, board, ColourMode::TrueColour);
        for (int i = 0; i < 2000; ++i)
            board.push(EventKind::PlayerBack);
        const auto started = SteadyClock::now();
        runner.stop();
        // Far above the usual tenths of a second, far below a wait for the reader.
        EXPECT_LT(SteadyClock::now() - started, std::chrono::seconds(2)) << fd;
    }
}

/// The reading and the writing end of a pipe, a terminal and a socket.
std::array<std::pair<UniqueFd, UniqueFd>, 3> channels() {
    OutputPipe pipe;
    ox::test::PseudoTerminal terminal(80, 24);
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {std::pair{std::move(pipe.reader), std::move(pipe.writer)},
            {std::move(terminal.user), std::move(terminal.program)},
            {UniqueFd(ends[0]), UniqueFd(ends[1])}};
}

// More than any of them holds: a blocking write would never return.
TEST(LineOutput, NeverBlocksAndDropsWholeLines) {
    for (const auto& [reader, writer] : channels()) {
        const std::string line(99, 'x');
        LineOutput output(writer.get());
        for (int i = 0; i < 20; ++i) {
            for (int n = 0; n < 500; ++n)
                output.add(line);
            output.flush_within(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(::fcntl(writer.get(), F_GETFL) & O_NONBLOCK, 0) << "the shared mode was changed";
        std::string text;
        std::array<char, 4096> buffer{};
        for (pollfd readable{reader.get(), POLLIN, 0}; ::poll(&readable, 1, 200) == 1;) {
            const ssize_t n = ::read(reader.get(), buffer.data(), buffer.size());
            text.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(n, 0)));
            output.flush();
        }
        std::erase(text, '\r');
        EXPECT_GE(text.size(), 655 * (line.size() + 1)) << "what it buffers";
        EXPECT_LT(text.size(), 10'000 * (line.size() + 1)) << "nothing was dropped?";
        for (size_t at = 0; at < text.size(); at += line.size() + 1)
            ASSERT_EQ(text.substr(at, line.size() + 1), line + "\n");
    }
}

}  // namespace
}  // namespace ox::tui
