#include <utility>

#include "control/control_server_fixture.h"
#include "support/dead_peer.h"
#include "support/eventually.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

class HandshakeTest : public ControlServerTest {};

std::string auth_with(std::string_view fields) {
    return R"({"type":"auth","token":"player-one-token",)" + std::string(fields) + "}\n";
}

std::string base64(const Secret& key) {
    return std::string(to_base64(key).text());
}

TEST_F(HandshakeTest, TakesALauncherThatSendsByteByByte) {
    server_.host_caps = 2;
    auto result = handshake();
    TcpClient launcher = connect();
    for (const char c :
         auth_with(R"("codec":1,"height":-60.9,"fps":75,"caps":8589934593,"udp_ip":"10.1.2.3")")) {
        launcher.send({&c, 1});
    }
    ASSERT_TRUE(result.get()) << log_.text();
    EXPECT_TRUE(server_.is_connected());
    EXPECT_EQ(launcher.read_line(kPatience),
              R"({"audio_key":")" + base64(server_.keys.audio_key) + R"(","caps":2,"input_key":")" +
                  base64(server_.keys.input_key) + R"(","type":"session_ready","video_key":")" +
                  base64(server_.keys.video_key) + R"("})");
    EXPECT_EQ(server_.requested.height, -60);
    EXPECT_EQ(server_.launcher_caps, UINT32_MAX);
    EXPECT_EQ(server_.granted_caps, 2u);
    EXPECT_EQ(server_.remote_address(), "10.1.2.3");
    EXPECT_EQ(
        log_.count("INFO", "TcpControlServer: auth request — codec=1 1920x-60 @75fps 15000kbps"),
        1);
    expect_vanished_peer_is_noticed(port(), false, 30'000);
    server_.close();
    EXPECT_FALSE(server_.is_connected());
    EXPECT_TRUE(launcher.closed_within(kPatience));
}

TEST_F(HandshakeTest, RefusesWhatIsNoGoodAuthLineAndTakesTheNextLauncher) {
    const std::string good_hash = server_.expected_token_sha256;
    const std::string good(kGoodAuth);
    const struct {
        std::string bytes;
        const char* log;
        std::string hash;
    } rows[] = {
        {good.substr(0, 30), "client closed during auth", good_hash},
        {std::string(40'000, 'x'), "auth message too large (1", good_hash},
        {auth_with(R"("fps":"60")"), "JSON parse error: 'fps' must be", good_hash},
        {"{\"type\":\"сс\\u001b[1mats\"}\n", "expected 'auth' message, got 'сс[1mats'", good_hash},
        {"{\"type\":\"auth\",\"token\":\"player-two-token\"}\n",
         "session token verification FAILED — rejecting client", good_hash},
        {"{\"type\":\"auth\",\"token\":\"player-one-token\\u0000\"}\n",
         "session token verification FAILED — rejecting client", good_hash},
        {good, "session token verification FAILED — rejecting client", good_hash + "0"},
        {good,
         "SECURITY — no session_token_sha256 supplied (refusing unverified handshake; fail-closed)",
         ""},
    };
    for (const auto& [bytes, log_line, hash] : rows) {
        SCOPED_TRACE(log_line);
        const LogCapture log;
        server_.expected_token_sha256 = hash;
        auto result = handshake();
        TcpClient bad = connect();
        bad.send(bytes);
        if (bytes.size() == 30) bad.close();
        EXPECT_FALSE(result.get());
        EXPECT_EQ(server_.last_error, "AUTH_REJECTED");
        EXPECT_FALSE(bad.read_line(kPatience)) << "nothing is sent to a refused launcher";
        EXPECT_FALSE(server_.is_connected());
        const auto text = log.text();
        EXPECT_NE(text.find("[ERROR] TcpControlServer: " + std::string(log_line)),
                  std::string::npos)
            << text;
        EXPECT_EQ(text.find("player-one"), std::string::npos) << "token in the log: " << text;
        server_.expected_token_sha256 = good_hash;
        connected_launcher();
        server_.close();
    }
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

TEST_F(HandshakeTest, ALauncherThatLeavesAtTheWrongMomentIsNoBusyPort) {
    auto result = handshake();
    TcpClient launcher = connect();
    server_.before_ready = [&] { launcher.close(true); };
    launcher.send(kGoodAuth);
    EXPECT_FALSE(result.get());
    EXPECT_EQ(server_.failure, HandshakeFailure::cannot_answer) << log_.text();
    EXPECT_EQ(server_.last_error, "AUTH_FAIL");
}

TEST_F(HandshakeTest, EveryWaitHasItsDeadline) {
    EXPECT_FALSE(server_.accept_and_handshake(port(), {}, 1));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    // Of an auth line that drips in, all counts together.
    EXPECT_EQ(std::exchange(server_.limits.auth, 100ms), 15s);
    auto result = handshake();
    TcpClient launcher = connect();
    EXPECT_TRUE(eventually(
        [&] {
            launcher.send(" ");
            return result.wait_for(0ms) == std::future_status::ready;
        },
        kPatience));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: auth read timed out"), 1);
}

}  // namespace
}  // namespace ox::test
