// The control port under attack: every attempt is answered as it should be, and the next launcher
// still gets in.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/agent.h"
#include "support/tcp_client.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

/// Fails the test unless an honest launcher is let in.
void expect_launcher_gets_in(const Agent& agent) {
    // Between two attempts the port is closed for a moment, and what waited there is reset.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        TcpClient client(agent.control_port(), kPatience);
        if (!client.send(auth_line())) continue;
        const auto line = client.read_line(kPatience);
        if (!line) continue;
        const auto reply = nlohmann::json::parse(*line, nullptr, false);
        ASSERT_TRUE(reply.is_object()) << *line;
        EXPECT_EQ(reply.value("type", ""), "session_ready");
        return;
    }
    FAIL() << "no launcher gets in any more";
}

TEST(Handshake, RefusesAttacksAndServesTheNextLauncher) {
    const std::pair<std::string, const char*> attacks[] = {
        {std::string(20'000, 'x'), "auth message too large ("},
        {"\xff\xfe\x00\x80\xc3(\x01\n"s, "TcpControlServer: JSON parse error: "},
        {"{}\n", "expected 'auth' message, got 'unknown'"},
        {auth_line("", "let me out"), "session token verification FAILED"},
    };
    Agent agent;
    size_t sessions = 0;
    for (const auto& [bytes, log] : attacks) {
        TcpClient client(agent.control_port(), kPatience);
        client.send(bytes);
        ASSERT_TRUE(agent.wait_for_log(log));
        ASSERT_TRUE(agent.wait_for_log("Standalone session ended: handshake_failed:AUTH_REJECTED",
                                       ++sessions));
        EXPECT_TRUE(client.closed_within(kPatience));
    }
    expect_launcher_gets_in(agent);
}

TEST(Handshake, ABusyPortIsReportedAndTriedAgainEverySecond) {
    auto ports = std::make_shared<PortBlock>();
    UniqueFd occupier = occupy_tcp_port(ports->control());
    Agent agent({.ports = ports});
    const std::string bind_failed = "TcpControlServer: bind :" + std::to_string(ports->control()) +
                                    " failed: Address already in use";
    ASSERT_TRUE(agent.wait_for_log(bind_failed));
    EXPECT_TRUE(agent.screen().wait_for(std::to_string(ports->control()), kPatience))
        << "the owner is not told";
    const auto begin = std::chrono::steady_clock::now();
    const auto cpu_before = agent.process().cpu_time();
    ASSERT_TRUE(agent.wait_for_log(bind_failed, 4));
    const auto three_retries = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(three_retries, 2500ms) << "hot loop";
    EXPECT_LE(three_retries, 5s * kSlowdown);
    EXPECT_LE(agent.process().cpu_time() - cpu_before, 300ms);

    occupier.reset();
    expect_launcher_gets_in(agent);
}

}  // namespace
}  // namespace ox::test
