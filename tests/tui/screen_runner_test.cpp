#include "tui/screen_runner.h"

#include <gtest/gtest.h>

#include <csignal>

#include "support/redirected_fd.h"
#include "tui/output_pipe.h"

namespace ox::tui {
namespace {

TEST(ScreenRunner, StopsInTimeWhateverStandardOutputDoes) {
    ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);  // NOLINT: the macro casts
    test::OutputPipe full;
    full.fill();
    test::OutputPipe broken;
    broken.reader.reset();
    const UniqueFd no_space(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    for (const int fd : {full.writer.get(), broken.writer.get(), no_space.get(), -1}) {
        const test::RedirectedFd redirected(STDOUT_FILENO, fd);
        Board board;
        ScreenRunner runner;
        runner.start(Lang::Russian, board, ColourMode::TrueColour);
        for (int i = 0; i < 2000; ++i)
            board.push(EventKind::PlayerBack);
        const auto started = std::chrono::steady_clock::now();
        runner.stop();
        // Far above the tenths of a second that it takes, far below a wait for the reader.
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2)) << fd;
    }
}

}  // namespace
}  // namespace ox::tui
