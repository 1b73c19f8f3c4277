#include <random>
#include <thread>

#include "control/control_server_fixture.h"
#include "tui/board.h"

namespace ox::test {
namespace {

using Clock = std::chrono::steady_clock;

class HandshakeTest : public ControlServerTest {};

std::string auth_with(std::string_view fields) {
    return R"({"type":"auth","token":"player-one-token",)" + std::string(fields) + "}\n";
}

std::string noise(size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

TEST_F(HandshakeTest, TakesALauncherThatSendsByteByByte) {
    server_.host_caps = 2;
    auto result = handshake();
    TcpClient launcher = connect();
    for (const char c : auth_with(R"("codec":1,"width":9000,"height":-3,"fps":75,"caps":7)")) {
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
    EXPECT_EQ(server_.remote_address(), "127.0.0.1");
    for (const std::string& line : {"listening on port " + std::to_string(port()) +
                                        ", waiting for client (60s accept deadline)...",
                                    std::string("auth request — codec=1 9000x-3 @75fps 15000kbps"),
                                    std::string("session token verified (SHA-256 match)"),
                                    std::string("handshake complete, session keys sent")}) {
        EXPECT_EQ(log_.count("INFO", "TcpControlServer: " + line), 1) << line;
    }
    server_.close();
    EXPECT_EQ(log_.count("INFO", "TcpControlServer: closed"), 1);
    EXPECT_FALSE(server_.is_connected());
    EXPECT_TRUE(launcher.closed_within(kPatience));
}

TEST_F(HandshakeTest, RefusesWhatIsNoGoodAuthLineAndTakesTheNextLauncher) {
    const struct {
        std::string bytes;
        bool then_close;
        const char* log;
    } rows[] = {
        {"", true, "client closed during auth"},
        {R"({"type":"auth","token":"player-one-)", true, "client closed during auth"},
        {noise(900) + "\n", false, "JSON parse error: "},
        {std::string(40'000, 'x'), false, "auth message too large (1"},
        {std::string(16'000, '[') + "\n", false, "JSON parse error: "},
        {"\n", false, "JSON parse error: "},
        {R"({"type":"auth","token":"player-one-token)"
         "\n",
         false, "JSON parse error: "},
        {auth_with(R"("fps":"60")"), false, "JSON parse error: 'fps' must be"},
        {"{\"type\":\"st\\u001b[1mats\"}\n", false, "expected 'auth' message, got 'st?[1mats'"},
        {"{}\n", false, "expected 'auth' message, got 'unknown'"},
        {"{\"type\":\"auth\",\"token\":\"player-two-token\"}\n", false,
         "session token verification FAILED — rejecting client"},
        {"{\"type\":\"auth\"}\n", false, "session token verification FAILED — rejecting client"},
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

TEST_F(HandshakeTest, ChoosesTheMediaAddress) {
    const struct {
        const char* udp_ip;
        const char* destination;
        const char* log;
    } rows[] = {
        {"127.0.0.1", "127.0.0.1",
         "[INFO ] TcpControlServer: launcher UDP IP matches TCP remote: 127.0.0.1\n"},
        {"10.1.2.3", "10.1.2.3",
         "[INFO ] TcpControlServer: launcher self-reported UDP IP = 10.1.2.3 (overrides TCP remote "
         "127.0.0.1)\n"},
        {"8.8.4.4", "127.0.0.1",
         "[WARN ] TcpControlServer: udp_ip '8.8.4.4' is a different public address from TCP "
         "'127.0.0.1' — ignoring override\n"},
        {"x\\ny", "127.0.0.1", "[WARN ] TcpControlServer: udp_ip 'x?y' is a different public"},
        {"", "127.0.0.1", ""},
    };
    for (const auto& row : rows) {
        const LogCapture log;
        auto result = handshake();
        TcpClient launcher = connect();
        launcher.send(auth_with(R"("udp_ip":")" + std::string(row.udp_ip) + "\""));
        ASSERT_TRUE(result.get());
        EXPECT_EQ(server_.remote_address(), row.destination);
        EXPECT_NE(log.text().find(row.log), std::string::npos) << log.text();
        server_.close();
    }
}

TEST_F(HandshakeTest, AbortEndsEveryWaitAtOnce) {
    const struct {
        bool connects;
        const char* log;
    } rows[] = {
        {false, "TcpControlServer: accept aborted (session ending / shutdown)"},
        {true, "TcpControlServer: auth read aborted"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        abort_ = false;
        const LogCapture log;
        auto result = handshake();
        std::optional<TcpClient> half_open;
        const char* waiting = "listening on port";
        if (row.connects) {
            half_open.emplace(connect()).send(kGoodAuth.substr(0, 20));
            waiting = "client connected from";
        }
        while (log.text().find(waiting) == std::string::npos)
            std::this_thread::yield();
        const auto asked = Clock::now();
        abort_ = true;
        EXPECT_FALSE(result.get());
        EXPECT_LT(Clock::now() - asked, std::chrono::milliseconds(500)) << "100 ms and some slack";
        EXPECT_EQ(server_.last_error, "SESSION_ABORTED");
        EXPECT_EQ(log.count("WARN", row.log), 1) << log.text();
    }
}

TEST_F(HandshakeTest, TheAcceptDeadlineEndsTheWait) {
    EXPECT_FALSE(server_.accept_and_handshake(port(), {}, 1));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    EXPECT_TRUE(logged("(1s accept deadline)"));
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: accept timed out after 60s"), 1);
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

TEST_F(HandshakeTest, APortThatIsTakenRaisesTheAlert) {
    TcpClient first = connected_launcher();
    TcpControlServer second;
    EXPECT_FALSE(second.accept_and_handshake(port(), {}, 1));
    EXPECT_EQ(second.last_error, "AUTH_FAIL");
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: bind :" + std::to_string(port()) +
                                      " failed: Address already in use"),
              1);
    const auto board = tui::board().snapshot();
    EXPECT_TRUE(board.alerts[static_cast<size_t>(tui::Alert::PortBusy)]);
    EXPECT_EQ(board.busy_port, port());
}

TEST_F(HandshakeTest, AStormOfStrangersDisturbsNoSessionAndKeepsNobodyOut) {
    TcpClient launcher = connected_launcher();
    launcher.read_line(kPatience);
    server_.start_async_read();
    // Against the full backlog of the listener a blocking connect would wait: a few are enough to
    // have one inside and one outside.
    for (int i = 0; i < 2; ++i) {
        TcpClient stranger = connect();
        stranger.send(kGoodAuth);
        launcher.send("{\"type\":\"ping\",\"ts\":1}\n");
        EXPECT_EQ(launcher.read_line(kPatience), R"({"ts":1,"type":"pong"})");
        EXPECT_FALSE(stranger.read_line(std::chrono::milliseconds(1)));
        stranger.close(true);
    }
    server_.close();

    std::atomic<bool> got_in{false};
    std::jthread storm([&] {
        // Not more: one that meets the listener as it closes tries again after the kernel's second.
        for (int i = 0; i < 6; ++i) {
            TcpClient stranger = connect();
            stranger.send(i % 3 == 0 ? "{" : "\n");
            if (i % 3 != 2) stranger.close(i % 3 == 0);
            stranger.closed_within(kPatience);
        }
        while (!got_in) {
            TcpClient good = connect();
            good.send(kGoodAuth);
            if (good.read_line(kPatience)) got_in = true;
        }
    });
    int refused = 0;
    while (!server_.accept_and_handshake(port(), {}, 5) && refused < 200)
        ++refused;
    EXPECT_TRUE(server_.is_connected());
    storm.join();
    EXPECT_TRUE(got_in);
}

}  // namespace
}  // namespace ox::test
