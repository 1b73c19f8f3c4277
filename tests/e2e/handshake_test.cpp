// The control port under attack: every attempt is answered as it should be, and the next launcher
// still gets in.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <map>
#include <nlohmann/json.hpp>
#include <vector>

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

TEST(Handshake, RefusesEveryMalformedAuthLineAndServesTheNextLauncher) {
    struct Attack {
        const char* name;
        std::string bytes;
        std::string log;  ///< the line that tells what was wrong
        bool client_closes = false;
    };
    const std::string parse_error = "TcpControlServer: JSON parse error: ";
    const std::vector<Attack> attacks = {
        {"line without an end", std::string(20'000, 'x'), "auth message too large ("},
        {"binary garbage", "\xff\xfe\x00\x80\xc3(\x01\n"s, parse_error},
        {"empty line", "\n", parse_error},
        {"not an object", "[1,2,3]\n", parse_error},
        {"token is a number", "{\"type\":\"auth\",\"token\":5}\n", parse_error},
        {"width is a text", auth_line(R"(,"width":"wide")"), parse_error},
        {"deep nesting", std::string(16'000, '[') + "\n", parse_error},
        {"another message", "{\"type\":\"ping\"}\n", "expected 'auth' message, got 'ping'"},
        {"no type", "{}\n", "expected 'auth' message, got 'unknown'"},
        {"wrong token", auth_line("", "let me out"), "session token verification FAILED"},
        {"no token", "{\"type\":\"auth\"}\n", "session token verification FAILED"},
        {"hangs up", "{\"type\":\"au", "client closed during auth", true},
    };
    Agent agent;
    size_t sessions = 0;
    std::map<std::string, size_t> seen;
    for (const auto& attack : attacks) {
        SCOPED_TRACE(attack.name);
        TcpClient client(agent.control_port(), kPatience);
        client.send(attack.bytes);
        if (attack.client_closes) client.close();
        ASSERT_TRUE(agent.wait_for_log(attack.log, ++seen[attack.log]));
        ASSERT_TRUE(agent.wait_for_log("Standalone session ended: handshake_failed:AUTH_REJECTED",
                                       ++sessions));
        if (!attack.client_closes) {
            EXPECT_TRUE(client.closed_within(kPatience));
        }
    }
    expect_launcher_gets_in(agent);
    agent.expect_prompt_stop();
}

TEST(Handshake, WithoutAConfiguredHashNobodyGetsIn) {
    Agent agent({.arguments = {"--token-sha256", ""}});
    TcpClient client(agent.control_port(), kPatience);
    client.send(auth_line());
    EXPECT_TRUE(client.closed_within(kPatience));
    EXPECT_TRUE(agent.wait_for_log(
        "TcpControlServer: SECURITY — no session_token_sha256 supplied (refusing unverified "
        "handshake; fail-closed)"));
}

TEST(Handshake, AssemblesALineThatComesByteByByte) {
    Agent agent;
    TcpClient client(agent.control_port(), kPatience);
    for (const char byte : auth_line(R"(,"fps":30,"width":640,"height":360)")) {
        ASSERT_TRUE(client.send({&byte, 1}));
    }
    const auto line = client.read_line(kPatience);
    ASSERT_TRUE(line.has_value());
    const auto reply = nlohmann::json::parse(*line);
    EXPECT_EQ(reply.at("type"), "session_ready");
    for (const char* key : {"video_key", "audio_key", "input_key"}) {
        EXPECT_EQ(reply.at(key).get<std::string>().size(), 44U) << key;
        for (const auto& logged : agent.log().lines()) {
            EXPECT_EQ(logged.find(reply.at(key)), std::string::npos) << "a key was logged";
        }
    }
    EXPECT_EQ(reply.at("caps"), 0);
    // Compact, members in ascending order.
    EXPECT_EQ(*line, reply.dump());
    EXPECT_TRUE(agent.wait_for_log("auth request — codec=0 640x360 @30fps 15000kbps"));
}

/// A connection on its way, without waiting for anybody to take it.
UniqueFd start_connecting(uint16_t port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return fd;
}

TEST(Handshake, SurvivesAStormOfConnections) {
    Agent agent;
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
    for (int wave = 0; wave < 5; ++wave) {
        std::vector<UniqueFd> storm;
        for (int i = 0; i < 100; ++i)
            storm.push_back(start_connecting(agent.control_port()));
    }
    expect_launcher_gets_in(agent);
    agent.expect_prompt_stop();
}

TEST(HandshakeDeadline, ASilentClientIsDroppedAfterFifteenSeconds) {
    Agent agent;
    TcpClient client(agent.control_port(), kPatience);
    client.send("{\"type\":\"auth\"");
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: client connected from 127.0.0.1:"));
    EXPECT_FALSE(client.closed_within(14s));
    EXPECT_TRUE(client.closed_within(2s));
    EXPECT_TRUE(agent.wait_for_log("TcpControlServer: auth read timed out"));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: handshake_failed:HANDSHAKE_TIMEOUT"));
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
