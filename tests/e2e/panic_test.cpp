// The owner's ways to end a session at once.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>

#include "e2e/player.h"
#include "support/unix_socket.h"

namespace ox::test {
namespace {

namespace fs = std::filesystem;

/// What `text` gets for an answer: nothing, and the end of the connection.
void say(const UniqueFd& socket, const std::string& text) {
    ASSERT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    char answer = 0;
    EXPECT_LE(::recv(socket.get(), &answer, 1, 0), 0);
}

TEST(Panic, EndsTheSessionAndEveryLaterOneUntilTheAgentIsStartedAgain) {
    for (const bool by_signal : {true, false}) {
        SCOPED_TRACE(by_signal ? "signal" : "socket");
        Agent agent;
        const std::string path = agent.folder_file("orvex-agent-panic.sock");
        auto player = std::make_optional<Player>(agent);
        ASSERT_TRUE(player->receive_frames(10));
        EXPECT_TRUE(agent.wait_for_log("Panic: local stop channel at " + path));
        EXPECT_TRUE(fs::is_socket(path));
        EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        if (by_signal) {
            agent.process().signal(SIGUSR1);
        } else {
            const UniqueFd typing = connect_unix(path);
            say(connect_unix(path), "STOP");
            ASSERT_TRUE(player->receive_frames(90)) << "ended by a word that is none";
            say(typing, "please stop now\n");
            EXPECT_TRUE(agent.wait_for_log("PANIC: local stop requested — ending the session now"));
        }
        EXPECT_TRUE(player->is_ended());
        EXPECT_TRUE(agent.wait_for_log("Session end (merchant_panic): "));
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic"));
        player.reset();

        Player next(agent);
        EXPECT_TRUE(next.is_ended());
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic", 2));
        // The agent itself goes on, ends with status 0 when told, and takes its socket along.
        ASSERT_TRUE(agent.process().running());
        agent.expect_prompt_stop();
        EXPECT_FALSE(fs::exists(path));
    }
}

}  // namespace
}  // namespace ox::test
