// The control port under attack: every attempt is answered as it should be, and the next launcher
// still gets in.

#include <gtest/gtest.h>

#include <thread>

#include "e2e/player.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

TEST(Handshake, ABusyPortIsSaidOnceAndWaitedForAndAttacksAreRefused) {
    auto ports = std::make_shared<PortBlock>();
    UniqueFd occupier = occupy_tcp_port(ports->control());
    Agent agent({.ports = ports});
    const std::string bind_failed = "TcpControlServer: bind :" + std::to_string(ports->control()) +
                                    " failed: Address already in use";
    ASSERT_TRUE(agent.wait_for_log(bind_failed));
    EXPECT_TRUE(agent.screen().wait_for(std::to_string(ports->control()), kPatience))
        << "the owner is not told";
    const auto cpu_before = agent.process().cpu_time();
    std::this_thread::sleep_for(3s);  // nothing is to happen
    EXPECT_EQ(agent.log().count(bind_failed), 1U);
    EXPECT_LE(agent.process().cpu_time() - cpu_before, 300ms) << "hot loop";
    occupier.reset();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Port ", kPatience));

    const std::pair<std::string, const char*> attacks[] = {
        {std::string(20'000, 'x'), "auth message too large ("},
        {"\xff\xfe\x00\x80\xc3(\x01\n"s, "TcpControlServer: JSON parse error: "},
        {"{}\n", "expected 'auth' message, got 'unknown'"},
        {auth_line("", "let me out"), "session token verification FAILED"},
    };
    size_t sessions = 0;
    for (const auto& [bytes, log] : attacks) {
        TcpClient client(agent.control_port(), kPatience);
        client.send(bytes);
        ASSERT_TRUE(agent.wait_for_log(log));
        ASSERT_TRUE(agent.wait_for_log("Standalone session ended: handshake_failed:AUTH_REJECTED",
                                       ++sessions));
        EXPECT_TRUE(client.closed_within(kPatience));
    }
    EXPECT_TRUE(Player(agent).receive_frames(1));
}

}  // namespace
}  // namespace ox::test
