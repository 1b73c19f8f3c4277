#include "control/auth_reader.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ox {
namespace {

// Every chunk is read by itself, since the next is sent when the reader is about to wait for it.
TEST(AuthReader, LimitOfALine) {
    const std::vector<std::string> almost_full(7, std::string(2048, 'x'));  // 14336 bytes
    const struct {
        std::string last_but_one;
        AuthRead result;
        size_t length;
    } rows[] = {{std::string(2047, 'x'), AuthRead::complete, 16'383},
                {std::string(2048, 'x'), AuthRead::too_large, 16'384}};
    for (const auto& row : rows) {
        auto chunks = almost_full;
        chunks.insert(chunks.end(), {row.last_but_one, "\nmore"});
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const UniqueFd reader(ends[0]);
        const UniqueFd sender(ends[1]);
        auto next = chunks.begin();
        const auto send_next = [&] {
            const bool sent = ::send(sender.get(), next->data(), next->size(), 0) > 0;
            ++next;
            return !sent;
        };
        std::string line = "left over";
        EXPECT_EQ(read_auth_line(reader.get(), SteadyClock::now() + std::chrono::seconds(20),
                                 send_next, line),
                  row.result);
        EXPECT_EQ(line.size(), row.length);
    }
}

}  // namespace
}  // namespace ox
