#include <thread>

#include "control/control_server_fixture.h"
#include "support/dead_peer.h"

namespace ox::test {
namespace {

using Clock = std::chrono::steady_clock;

class HandshakeTest : public ControlServerTest {};

std::string auth_with(std::string_view fields) {
    return R"({"type":"auth","token":"player-one-token",)" + std::string(fields) + "}\n";
}

TEST_F(HandshakeTest, TakesALauncherThatSendsByteByByte) {
    server_.host_caps = 2;
    auto result = handshake();
    TcpClient launcher = connect();
    for (const char c :
         auth_with(R"("codec":1,"width":9000,"height":-3,"fps":75,"caps":7,"udp_ip":"10.1.2.3")")) {
        launcher.send({&c, 1});
    }
    ASSERT_TRUE(result.get()) << log_.text();
    EXPECT_TRUE(server_.is_connected());
    EXPECT_EQ(launcher.read_line(kPatience),
              R"({"audio_key":")" + to_base64(server_.keys.audio_key) +
                  R"(","caps":2,"input_key":")" + to_base64(server_.keys.input_key) +
                  R"(","type":"session_ready","video_key":")" + to_base64(server_.keys.video_key) +
                  R"("})");
    EXPECT_EQ(server_.requested.height, -3);
    EXPECT_EQ(server_.launcher_caps, 7u);
    EXPECT_EQ(server_.granted_caps, 2u);
    EXPECT_EQ(server_.remote_address(), "10.1.2.3");
    EXPECT_EQ(
        log_.count("INFO", "TcpControlServer: auth request — codec=1 9000x-3 @75fps 15000kbps"), 1);
    expect_vanished_peer_is_noticed(port(), false, 30'000);
    server_.close();
    EXPECT_FALSE(server_.is_connected());
    EXPECT_TRUE(launcher.closed_within(kPatience));
}

TEST_F(HandshakeTest, RefusesWhatIsNoGoodAuthLineAndTakesTheNextLauncher) {
    const struct {
        std::string bytes;
        bool then_close;
        const char* log;
    } rows[] = {
        {R"({"type":"auth","token":"player-one-)", true, "client closed during auth"},
        {std::string(40'000, 'x'), false, "auth message too large (1"},
        {std::string(16'000, '[') + "\n", false, "JSON parse error: "},
        {auth_with(R"("fps":"60")"), false, "JSON parse error: 'fps' must be"},
        {"{\"type\":\"st\\u001b[1mats\"}\n", false, "expected 'auth' message, got 'st?[1mats'"},
        {"{\"type\":\"auth\",\"token\":\"player-two-token\"}\n", false,
         "session token verification FAILED — rejecting client"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        const LogCapture log;
        auto result = handshake();
        TcpClient bad = connect();
        bad.send(row.bytes);
        if (row.then_close) bad.close();
        EXPECT_FALSE(result.get());
        EXPECT_EQ(server_.last_error, "AUTH_REJECTED");
        EXPECT_TRUE(bad.closed_within(kPatience));
        EXPECT_FALSE(server_.is_connected());
        const auto text = log.text();
        EXPECT_NE(text.find("[ERROR] TcpControlServer: " + std::string(row.log)), std::string::npos)
            << text;
        EXPECT_EQ(text.find("player-one"), std::string::npos) << "token in the log: " << text;
        connected_launcher();
        server_.close();
    }
}

TEST_F(HandshakeTest, RefusesEveryoneWithoutATokenHash) {
    for (const char* hash :
         {"", "04e903e6", "04e903e6f4635ae514d0c658e95b50213c3d276126584d4fe555a67c0d9444cb0"}) {
        server_.expected_token_sha256 = hash;
        auto result = handshake();
        TcpClient launcher = connect();
        launcher.send(kGoodAuth);
        EXPECT_FALSE(result.get());
        EXPECT_EQ(server_.last_error, "AUTH_REJECTED");
        EXPECT_FALSE(launcher.read_line(kPatience)) << "nothing is sent to a refused launcher";
    }
    EXPECT_EQ(log_.count("ERROR",
                         "TcpControlServer: SECURITY — no session_token_sha256 supplied (refusing "
                         "unverified handshake; fail-closed)"),
              1);
}

// The predicate is asked between the start of listening and the first accept.
TEST_F(HandshakeTest, AConnectionResetBeforeTheAcceptDoesNotEndTheWait) {
    bool was_reset = false;
    std::optional<TcpClient> launcher;
    const bool done = server_.accept_and_handshake(
        port(),
        [&] {
            if (!was_reset) {
                connect().close(true);
                was_reset = true;
            } else if (!launcher) {
                launcher.emplace(connect()).send(kGoodAuth);
            }
            return false;
        },
        0);
    EXPECT_TRUE(done) << log_.text();
    EXPECT_EQ(log_.count("WARN",
                         "TcpControlServer: handoff reset (Connection reset by peer) — still "
                         "accepting"),
              1)
        << log_.text();
}

TEST_F(HandshakeTest, AStrangerDisturbsNoSession) {
    TcpClient launcher = connected_launcher();
    launcher.read_line(kPatience);
    server_.start_async_read();
    TcpClient stranger = connect();
    stranger.send(kGoodAuth);
    launcher.send("{\"type\":\"ping\",\"ts\":1}\n");
    EXPECT_EQ(launcher.read_line(kPatience), R"({"ts":1,"type":"pong"})");
    EXPECT_FALSE(stranger.read_line(std::chrono::milliseconds(1)));
}

TEST_F(HandshakeTest, EveryWaitHasItsDeadline) {
    EXPECT_FALSE(server_.accept_and_handshake(port(), {}, 1));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    // An auth line that drips in is given fifteen seconds in all.
    auto result = handshake();
    TcpClient launcher = connect();
    const auto connected = Clock::now();
    while (result.wait_for(std::chrono::milliseconds(400)) != std::future_status::ready) {
        ASSERT_LT(Clock::now() - connected, kPatience) << "still waiting";
        launcher.send(" ");
    }
    EXPECT_GE(Clock::now() - connected, std::chrono::milliseconds(14'900));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: auth read timed out"), 1);
}

}  // namespace
}  // namespace ox::test
