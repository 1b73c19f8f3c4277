#include "tui/terminal_output.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/pseudo_terminal.h"
#include "tui/output_pipe.h"

namespace ox::tui {
namespace {

/// The reading and the writing end of a pipe, a terminal and a socket.
std::array<std::pair<UniqueFd, UniqueFd>, 3> channels() {
    test::OutputPipe pipe;
    ox::test::PseudoTerminal terminal(80, 24);
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {std::pair{std::move(pipe.reader), std::move(pipe.writer)},
            {std::move(terminal.user), std::move(terminal.program)},
            {UniqueFd(ends[0]), UniqueFd(ends[1])}};
}

// More than any of them holds: a write that waits would never come back.
TEST(LineOutput, WaitsForNobodyAndDropsWholeLines) {
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
        ASSERT_EQ(text.size() % (line.size() + 1), 0U);
        for (size_t at = 0; at < text.size(); at += line.size() + 1)
            ASSERT_EQ(text.substr(at, line.size() + 1), line + "\n");
    }
}

}  // namespace
}  // namespace ox::tui
