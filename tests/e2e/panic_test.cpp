// The owner's ways to end a session at once.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>

#include "base/unique_fd.h"
#include "e2e/player.h"

namespace ox::test {
namespace {

std::string panic_path(const Agent& agent) {
    return agent.folder_file("orvex-agent-panic.sock");
}

UniqueFd connect_to(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0)
        << std::strerror(errno);
    return socket;
}

// What `text` gets for an answer: nothing, and the end of the connection.
void say(const std::string& path, const std::string& text) {
    const UniqueFd socket = connect_to(path);
    ASSERT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    char answer = 0;
    EXPECT_LE(::recv(socket.get(), &answer, 1, 0), 0);
}

struct Way {
    const char* name;
    void (*stop)(Agent&);
    const char* line;
};

void PrintTo(const Way& way, std::ostream* out) {
    *out << way.name;
}

class Panic : public testing::TestWithParam<Way> {};
INSTANTIATE_TEST_SUITE_P(
    Ways, Panic,
    testing::Values(Way{"Signal", [](Agent& agent) { agent.process().signal(SIGUSR1); }, nullptr},
                    Way{"Socket",
                        [](Agent& agent) {
                            // Someone who connects and says nothing is in nobody's way for long.
                            const UniqueFd silent = connect_to(panic_path(agent));
                            say(panic_path(agent), "please stop now\n");
                        },
                        "PANIC: local stop requested — ending the session now"}),
    [](const auto& way) { return way.param.name; });

TEST_P(Panic, EndsTheSessionAndEveryLaterOneUntilTheAgentIsStartedAgain) {
    Agent agent;
    auto player = std::make_optional<Player>(agent);
    ASSERT_TRUE(player->receive_frames(10));
    struct stat info {};
    ASSERT_EQ(::stat(panic_path(agent).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_TRUE(agent.wait_for_log("Panic: local stop channel at " + panic_path(agent)));
    say(panic_path(agent), "STOP");
    ASSERT_TRUE(player->receive_frames(30)) << "ended by a word that is none";

    GetParam().stop(agent);
    EXPECT_TRUE(player->receive_until(
        [&] { return player->control().closed_within(std::chrono::milliseconds(0)); }));
    if (GetParam().line != nullptr) {
        EXPECT_TRUE(agent.wait_for_log(GetParam().line));
    }
    EXPECT_TRUE(agent.wait_for_log("Session end (merchant_panic): "));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic"));
    player.reset();

    Player next(agent);
    EXPECT_TRUE(next.receive_until(
        [&] { return next.control().closed_within(std::chrono::milliseconds(0)); }));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic", 2));
    // The agent itself goes on, ends with status 0 when told, and takes its socket along.
    ASSERT_TRUE(agent.process().running());
    agent.expect_prompt_stop();
    EXPECT_NE(::stat(panic_path(agent).c_str(), &info), 0);
}

}  // namespace
}  // namespace ox::test
