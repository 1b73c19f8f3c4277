// The launcher's control channel, the session's keys and the address for its media.

#include <gtest/gtest.h>
#include <sodium.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "control/session_keys.h"
#include "control/tcp_control_server.h"
#include "control/udp_destination.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/tcp_client.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kTimeout = 20s;  // generous, for a busy machine
constexpr const char* kTokenHash =
    "04E903e6f4635ae514d0c658e95b50213c3d276126584d4fe555a67c0d9444cb";

/// An auth line with the token of `kTokenHash` and further `fields`.
std::string auth_line(const std::string& fields = "") {
    return R"({"type":"auth","token":"player-one-token")" + fields + "}\n";
}

std::string describe(const ControlMessage& message) {
    if (const auto* change = std::get_if<SettingsChange>(&message))
        return testing::PrintToString(
            std::vector{change->bitrate, change->fps, change->width, change->height});
    if (const auto* stats = std::get_if<ClientStats>(&message))
        return "stats " + std::to_string(static_cast<int>(stats->rtt_ms));
    if (const auto* unknown = std::get_if<UnknownControlMessage>(&message)) return unknown->type;
    return std::holds_alternative<RequestIdr>(message) ? "an IDR" : "the end";
}

/// A control server on a free port that expects the token of `kTokenHash`.
struct TcpControlServerTest : testing::Test {
    TcpControlServerTest() {
        server_.expected_token_sha256 = kTokenHash;
        server_.on_message = [this](const ControlMessage& message) {
            const MutexLock lock(mutex_);
            messages_ += describe(message) + "|";
        };
    }
    ~TcpControlServerTest() override { abort_ = true; }

    [[nodiscard]] TcpClient connect() const { return {ports_.control(), kTimeout}; }

    std::future<bool> handshake() {
        return std::async(std::launch::async, [this] {
            return server_.accept_and_handshake(
                ports_.control(), [this] { return abort_.load(); }, 0);
        });
    }

    /// Completes a handshake; the answer is still unread.
    TcpClient connected_launcher() {
        auto result = handshake();
        TcpClient launcher = connect();
        launcher.send(auth_line());
        EXPECT_TRUE(result.get()) << log_.text();
        return launcher;
    }

    /// The messages since the last call, each followed by a bar.
    std::string take_messages() {
        const MutexLock lock(mutex_);
        return std::exchange(messages_, {});
    }

    Mutex mutex_;
    std::string messages_ OX_GUARDED_BY(mutex_);
    LogCapture log_{LogLevel::TRACE};
    PortBlock ports_;
    std::atomic<bool> abort_{false};
    TcpControlServer server_;
};

TEST_F(TcpControlServerTest, AcceptsALauncherThatSendsByteByByte) {
    server_.host_caps = 2;
    auto result = handshake();
    TcpClient launcher = connect();
    for (const char c :
         auth_line(R"(,"codec":1,"height":-60.9,"fps":75,"caps":8589934593,"udp_ip":"10.1.2.3")")) {
        launcher.send({&c, 1});
    }
    ASSERT_TRUE(result.get()) << log_.text();
    EXPECT_TRUE(server_.is_connected());
    const std::string ready = launcher.read_line(kTimeout).value_or("nothing");
    EXPECT_EQ(ready, make_session_ready(server_.keys, 2).text());
    EXPECT_NE(ready.find(R"("caps":2,)"), std::string::npos);
    EXPECT_EQ(server_.requested.height, -60);
    EXPECT_EQ(server_.launcher_caps, UINT32_MAX);
    EXPECT_EQ(server_.granted_caps, 2u);
    EXPECT_EQ(server_.remote_address(), "10.1.2.3");
    EXPECT_EQ(log_.times("auth request — codec=1 1920x-60 @75fps 15000kbps"), 1);
    expect_vanished_peer_is_noticed(ports_.control(), false, 30'000);
    server_.close();
    EXPECT_FALSE(server_.is_connected());
    EXPECT_TRUE(launcher.closed_within(kTimeout));
}

TEST_F(TcpControlServerTest, RejectsBadAuthLinesWithASafeLogLineAndAcceptsTheNextLauncher) {
    const char* wrong_token = "session token verification FAILED — rejecting client";
    const std::pair<std::string, const char*> rows[] = {
        {auth_line().substr(0, 30), "client closed during auth"},
        {std::string(40'000, 'x'), "auth message too large (1"},
        {"\xff\x1b[2J garbage\n", "invalid literal"},
        {std::string("{\"type\":\"auth\"}\0{\n", 18), "NUL byte"},
        {"{\"type\":\"auth\",\"token\":\"player-one\n", "missing closing quote"},
        {"{\"type\":\"auth\",\"token\":1e99999999}\n", "number overflow"},
        {"{\"type\":\"auth\",\"token\":[\"player-one\"]}\n", "'token' must be a string, but is"},
        {auth_line(R"(,"fps":"60")"), "JSON parse error: 'fps' must be a number, but is string"},
        {"{\"type\":\"сс\\u001b[1m\\na\\u009bts\"}\n", "expected 'auth' message, got 'сс[1mats'"},
        {"{\"type\":\"auth\",\"token\":\"player-two-token\"}\n", wrong_token},
        {"{\"type\":\"auth\",\"token\":\"player-one-token\\u0000\"}\n", wrong_token},
    };
    const auto expect_rejected = [&](const std::string& line, const char* log_line) {
        SCOPED_TRACE(log_line);
        const LogCapture log;
        auto result = handshake();
        TcpClient bad = connect();
        bad.send(line);
        if (line.size() == 30) bad.close();
        EXPECT_FALSE(result.get());
        EXPECT_EQ(server_.failure, HandshakeFailure::rejected);
        EXPECT_FALSE(bad.read_line(kTimeout)) << "nothing is sent to a rejected launcher";
        EXPECT_FALSE(server_.is_connected());
        EXPECT_EQ(log.times("[ERROR] TcpControlServer: "), 1) << log.text();
        EXPECT_EQ(log.times(log_line), 1) << log.text();
        EXPECT_EQ(log.times("player-one") + log.times("99999999"), 0) << log.text();
        server_.expected_token_sha256 = kTokenHash;
        connected_launcher();
        server_.close();
    };
    for (const auto& [line, log_line] : rows)
        expect_rejected(line, log_line);
    server_.expected_token_sha256 = kTokenHash + std::string("0");
    expect_rejected(auth_line(), wrong_token);
    server_.expected_token_sha256 = "";
    expect_rejected(auth_line(),
                    "SECURITY — no session_token_sha256 supplied (refusing unverified");
}

// The abort predicate is first asked between listen and accept.
TEST_F(TcpControlServerTest, AConnectionResetBeforeTheAcceptDoesNotEndTheWait) {
    bool was_reset = false;
    std::optional<TcpClient> launcher;
    const bool done = server_.accept_and_handshake(
        ports_.control(),
        [&] {
            if (!was_reset) {
                connect().close(true);
                was_reset = true;
            } else if (!launcher) {
                launcher.emplace(connect()).send(auth_line());
            }
            return false;
        },
        0);
    EXPECT_TRUE(done) << log_.text();
    EXPECT_EQ(log_.times("handoff reset (Connection reset by peer) — still accepting"), 1);
}

TEST_F(TcpControlServerTest, ADisconnectBeforeTheAnswerIsNoListenFailure) {
    auto result = handshake();
    TcpClient launcher = connect();
    server_.before_ready = [&] { launcher.close(true); };
    launcher.send(auth_line());
    EXPECT_FALSE(result.get());
    EXPECT_EQ(server_.failure, HandshakeFailure::cannot_answer) << log_.text();
}

TEST_F(TcpControlServerTest, AcceptAndAuthTimeOut) {
    EXPECT_FALSE(server_.accept_and_handshake(ports_.control(), {}, 1));
    EXPECT_EQ(server_.failure, HandshakeFailure::timed_out);
    // The deadline is for the whole auth line.
    EXPECT_EQ(std::exchange(server_.auth_timeout, 100ms), 15s);
    auto result = handshake();
    TcpClient launcher = connect();
    EXPECT_TRUE(eventually([&] { return !launcher.send(" "); }, kTimeout));
    EXPECT_FALSE(result.get());
    EXPECT_EQ(server_.failure, HandshakeFailure::timed_out);
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: auth read timed out"), 1);
}

std::string line_of_length(size_t length, const std::string& type) {
    std::string line = R"({"type":")" + type + "\"}";
    line.resize(length, ' ');
    return line + "\n";
}

TEST_F(TcpControlServerTest, HandlesEachLineOnceAndInOrderHoweverSegmented) {
    const std::string bytes = R"({"type":"request_idr"}
{"type":"set_settings","bitrate":900,"height":1e300,"width":-1099511627776}

{"type":"stats","rtt_ms":12}
{}
"ping"
no json
{"type":7}
{"type":"ping","ts":"soon"}
{"type":"anything else","ts":"no ping, so of any type"}
)" + std::string(8192, '[') + "\n" +
                              line_of_length(8192, "longest possible") +
                              line_of_length(8193, "too long") +
                              line_of_length(20'000, "far too long") +
                              R"({"type":"end_session"}
{"type":"ping","ts":-9223372036854775808}
{"type":"ping","ts":18446744073709551615}
{"type":"ping","ts":-1e19}
{"type":"ping"}
)";
    TcpClient launcher = connected_launcher();
    launcher.read_line(kTimeout);
    server_.start_async_read();
    int round = 0;
    for (const size_t cut : {bytes.size(), size_t{7}, size_t{2500}}) {
        ++round;
        for (size_t at = 0; at < bytes.size(); at += cut)
            launcher.send(std::string_view(bytes).substr(at, cut));
        for (const char* ts : {"-9223372036854775808", "-1", "-9223372036854775808", "0"})
            EXPECT_EQ(launcher.read_line(kTimeout).value_or("nothing"),
                      R"({"ts":)" + std::string(ts) + R"(,"type":"pong"})");
        EXPECT_EQ(take_messages(),
                  "an IDR|{ 900, 0, -2147483648, 2147483647 }|stats 12|anything else|"
                  "longest possible|the end|");
        for (const char* logged : {"oversized control message (8193 bytes) — ignoring",
                                   "oversized control message (20000 bytes) — ignoring",
                                   "malformed message: 'ts' must be a number, but is string",
                                   "malformed message: an object is expected, not a string"}) {
            EXPECT_EQ(log_.times(logged), round) << logged;
        }
    }
}

TEST_F(TcpControlServerTest, HandlesLinesReceivedBeforeAReset) {
    TcpClient launcher = connected_launcher();
    launcher.send("{\"type\":\"end_session\"}\n");
    launcher.close(true);
    server_.start_async_read();
    ASSERT_TRUE(eventually([&] { return !server_.is_connected(); }));
    EXPECT_EQ(take_messages(), "the end|");
}

TEST_F(TcpControlServerTest, CloseWakesAWriterWhoseLauncherDoesNotRead) {
    TcpClient launcher = connected_launcher();
    server_.start_async_read();
    std::atomic<pid_t> writing{0};
    std::jthread writer([&] {
        writing = ::gettid();
        while (server_.send_line(std::string(100'000, 'x'))) {
        }
    });
    // It only sleeps in a send that waits for buffer space.
    EXPECT_TRUE(eventually([&] {
        std::ifstream stat("/proc/self/task/" + std::to_string(writing) + "/stat");
        std::string state;
        return writing != 0 && std::getline(stat, state) && state.find(") S ") != state.npos;
    }));
    const auto asked = SteadyClock::now();
    server_.close();
    writer.join();
    EXPECT_LT(SteadyClock::now() - asked, 2s);
}

// The derived keys are checked by the wire vectors.
TEST(SessionKeys, RandomWithoutAMasterKeyOfTheRightLength) {
    ASSERT_GE(::sodium_init(), 0);
    std::set<std::vector<uint8_t>> all;
    for (const size_t length : {0, 0, 31, 31, 33, 33}) {
        SessionKeySet keys;
        keys.generate(std::vector<uint8_t>(length));
        for (const Secret* key : {&keys.video_key, &keys.audio_key, &keys.input_key})
            all.emplace(key->begin(), key->end());
    }
    EXPECT_EQ(all.size(), 18U) << "all different";
    EXPECT_EQ(all.begin()->size(), 32U);
}

TEST(UdpDestination, PrivateAddresses) {
    for (const char* ip :
         {"10.0.0.0", "10.255.255.255", "172.16.0.1", "172.31.255.255", "192.168.0.1", "127.9.0.1"})
        EXPECT_TRUE(is_private_ip(ip)) << ip;
    for (const char* ip : {"", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.169.1.1", "0.0.0.0",
                           "10.1", "10.0.0.1 ", "010.0.0.1", "10.0.0.256", "::1", "localhost"})
        EXPECT_FALSE(is_private_ip(ip)) << ip;
}

TEST(UdpDestination, ChoiceForTheMedia) {
    EXPECT_EQ(choose_udp_destination("", ""), UdpDestination::unknown);
    EXPECT_EQ(choose_udp_destination("", "8.8.8.8"), UdpDestination::tcp_remote);
    EXPECT_EQ(choose_udp_destination("8.8.4.4", "8.8.8.8"), UdpDestination::reported);
    EXPECT_EQ(choose_udp_destination("10.0.0.1", ""), UdpDestination::reported);
    EXPECT_EQ(choose_udp_destination("10.0.0.1", "192.168.0.1"), UdpDestination::reported);
    EXPECT_EQ(choose_udp_destination("10.0.0.1", "8.8.8.8"), UdpDestination::tcp_remote_not_local);
}

}  // namespace
}  // namespace ox::test
