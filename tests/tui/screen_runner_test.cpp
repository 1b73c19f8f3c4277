#include "tui/screen_runner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "support/eventually.h"
#include "support/redirected_fd.h"
#include "tui/output_pipe.h"

namespace ox::tui {
namespace {

using ::testing::MatchesRegex;

constexpr const char* kClock = "[0-9]{2}:[0-9]{2} ";

bool screen_thread_runs() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        if (std::ifstream(task.path() / "comm") >> name && name == "screen") return true;
    }
    return false;
}

TEST(ScreenRunner, ShowsTheBoardOnStandardOutput) {
    const test::OutputPipe pipe;
    const test::RedirectedFd redirected(STDOUT_FILENO, pipe.writer.get());
    Board board;
    board.update([](Snapshot& state) { state.version = "1"; });
    ScreenRunner runner;
    runner.start(Lang::English, board, ColourMode::Plain);
    std::string text;
    const auto shows = [&](const std::string& end) {
        return test::eventually([&] { return (text += pipe.read_all()).ends_with(end); });
    };
    EXPECT_TRUE(shows("orvex-agent 1\n")) << text;
    board.push(EventKind::PcRented);
    EXPECT_TRUE(shows("A player rented this PC\n")) << text;

    // As a signal handler does, without waking the thread; what is told later still gets out.
    board.quit = true;
    EXPECT_TRUE(test::eventually([] { return !screen_thread_runs(); }));
    board.push(EventKind::Stopping);
    runner.stop();
    text += pipe.read_all();
    EXPECT_THAT(text, MatchesRegex(std::string("orvex-agent 1\n") + kClock +
                                   "A player rented this PC\n" + kClock + "Stopping\n"));
    board.push(EventKind::Stopping);
    runner.stop();
    EXPECT_EQ(pipe.read_all(), "");
}

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
