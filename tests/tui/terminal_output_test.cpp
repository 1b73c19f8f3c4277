#include "tui/terminal_output.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "tui/output_pipe.h"

namespace ox::tui {
namespace {

const std::string kLine(99, 'x');

TEST(LineOutput, FullPipeKeepsLinesUntilReadAndDropsWholeOnes) {
    const test::OutputPipe pipe;
    pipe.fill();
    LineOutput output(pipe.writer.get());
    for (int i = 0; i < 1000; ++i)
        output.add(kLine);
    output.flush_within(std::chrono::milliseconds(1));
    EXPECT_EQ(pipe.read_all(), "");
    std::string text;
    for (int i = 0; i < 100; ++i) {
        output.flush();
        text += pipe.read_all();
    }
    ASSERT_EQ(text.size(), 655 * (kLine.size() + 1));
    for (size_t at = 0; at < text.size(); at += kLine.size() + 1) {
        ASSERT_EQ(text.substr(at, kLine.size() + 1), kLine + "\n");
    }
    EXPECT_EQ(::fcntl(pipe.writer.get(), F_GETFL) & O_NONBLOCK, 0) << "the shared mode was changed";
}

TEST(LineOutput, StalledTerminalIsNotWaitedFor) {
    const UniqueFd user(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(user);
    ASSERT_EQ(::grantpt(user.get()) | ::unlockpt(user.get()), 0);
    const UniqueFd terminal(::open(::ptsname(user.get()), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    LineOutput output(terminal.get());
    // More than it buffers: a write that waits would never come back.
    for (int i = 0; i < 655; ++i)
        output.add(kLine);
    output.flush_within(std::chrono::milliseconds(1));
    std::array<char, 202> seen{};
    ASSERT_EQ(::read(user.get(), seen.data(), seen.size()), 202);
    EXPECT_EQ(std::string(seen.data(), seen.size()), kLine + "\r\n" + kLine + "\r\n");
}

TEST(LineOutput, SocketIsWrittenToWithoutWaiting) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);
    LineOutput output(writer.get());
    std::string filling(100'000, '\n');
    while (::send(writer.get(), filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
    }
    output.add("kept");
    output.flush();
    std::array<char, 4096> buffer{};
    std::string text;
    for (ssize_t n = 0;
         (n = ::recv(reader.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
        text.assign(buffer.data(), static_cast<size_t>(n));
        output.flush();
    }
    EXPECT_TRUE(text.ends_with("\nkept\n"));
    reader.reset();
    output.add("nobody reads");
    output.flush();
}

}  // namespace
}  // namespace ox::tui
