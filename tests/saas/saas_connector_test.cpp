// The connector against a scripted backend, and against another WebSocket and TLS implementation.

#include "saas/saas_connector.h"

#include <gmock/gmock.h>
#include <sodium.h>

#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "app/board_reports.h"
#include "saas/platform_messages.h"
#include "saas/raw_backend.h"
#include "support/child_process.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/log_file.h"
#include "support/tcp_client.h"
#include "support/temp_dir.h"
#include "tui/board/board.h"

namespace ox {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::RawPeer;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kAgentToken = "agent-secret-token";
constexpr const char* kPong = R"({"type":"pong"})";

/// Short waits and a clean board.
struct SaasConnectorTest : testing::Test {
    SaasConnectorTest() {
        EXPECT_GE(sodium_init(), 0);
        static const tui::Snapshot kFresh;
        tui::board().update([](tui::Snapshot& state) { state = kFresh; });
    }

    static SaasConfig config(uint16_t port, const std::string& host = "127.0.0.1",
                             bool tls = false) {
        SaasConfig config;
        config.backend = {.host = host, .port = port, .tls = tls};
        config.agent_token = kAgentToken;
        return config;
    }

    static ConnectorTiming quick() {
        return {.backoff = {.first = 1ms, .longest = 4ms, .replaced = 20ms}};
    }

    /// The next connection, after the registration.
    RawPeer accept_registered() {
        RawPeer peer = backend_.accept();
        peer.accept_upgrade();
        EXPECT_THAT(peer.read_frame(), HasSubstr(R"("type":"register")"));
        return peer;
    }

    static bool alert(tui::Alert which) {
        return tui::board().snapshot().alerts.at(static_cast<size_t>(which));
    }
    static tui::LinkState link() { return tui::board().snapshot().link; }
    template <typename... Kinds>
    static void expect_events(Kinds... kinds) {
        EXPECT_THAT(tui::board().snapshot().events,
                    ElementsAre(Field(&tui::Event::kind, kinds)...));
    }
    /// Whether lines with this text are logged soon.
    bool logged(const std::string& text, int times = 1) {
        return eventually([&] { return log_.times(text) >= times; });
    }

    test::LogCapture log_;
    test::RawBackend backend_;
};

TEST_F(SaasConnectorTest, RegistersForwardsRequestsAndSurvivesInvalidMessages) {
    SaasConnector connector(config(backend_.port()), quick());
    std::promise<PrepareSessionParams> prepared;
    std::promise<std::string> terminated;
    connector.set_prepare_session_callback([&](auto&& params) {
        if (params.session_id == "throw") throw std::runtime_error("full");
        prepared.set_value(std::move(params));
    });
    connector.set_terminate_session_callback(
        [&](const auto& id, const auto& reason) { terminated.set_value(id + "/" + reason); });
    connector.start();
    RawPeer peer = backend_.accept();
    // The first frame comes with the handshake.
    const std::string request = peer.accept_upgrade(std::string("\x81\x0F{\"type\":\"ping\"}", 17));
    EXPECT_THAT(request, HasSubstr("\r\nHost: 127.0.0.1\r\n"));
    EXPECT_THAT(request, EndsWith("\r\nagent-token: agent-secret-token"));
    EXPECT_THAT(peer.read_frame(), HasSubstr(R"("type":"register")"));
    EXPECT_EQ(peer.read_frame(), kPong);
    EXPECT_TRUE(connector.connected());
    test::expect_vanished_peer_is_noticed(backend_.port(), true, 20'000);  // after a heartbeat
    for (
        const char* message :
        {"[1]", R"({"type":7})", R"({"type":"terminate_session","reason":1})", R"({"type":"news"})",
         R"({"type":"prepare_session","session_id":"throw"})",
         R"({"encryption_key":"S3CRETKEY","type":)",
         R"({"type":"prepare_session","encryption_key":"S3CRETKEY","session_token_sha256":"5EC0","client_id":1})",
         R"({"type":"prepare_session","session_token_sha256":"5EC0","encryption_key":"S3CRETKEYw=="})",
         R"({"type":"terminate_session"})"}) {
        peer.send_text(message);
    }
    EXPECT_EQ(prepared.get_future().get().encryption_key.size(), 7U);
    EXPECT_EQ(terminated.get_future().get(), "/saas_terminated");
    connector.stop();
    EXPECT_FALSE(connector.connected());
    EXPECT_TRUE(peer.closed());
    const std::string log = log_.text();
    EXPECT_THAT(log, HasSubstr("prepare_session error: full raw="));
    EXPECT_THAT(log, HasSubstr(R"(raw={"type":"prepare_session","encryption_key":"*********",)"));
    EXPECT_THAT(log, HasSubstr(R"([WARN ] SaasConnector: invalid JSON: {"encryption_key":"*)"));
    for (const char* secret : {"S3CRETKEY", "5EC0", kAgentToken})
        EXPECT_THAT(log, Not(HasSubstr(secret)));
}

TEST_F(SaasConnectorTest, ReportsARefusedTokenUntilAHandshakeSucceeds) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.set_link_callback(report_platform_link);
    connector.start();
    const std::pair<std::string, bool> answers[] = {
        {"HTTP/1.1 500 Oh no\r\nX: 403 401\r\n\r\n", false},
        {"HTTP/1.1 101 OK, or so\r\n\r\n", false},
        {"HTTP/1.1 401 Unauthorized\r\n\r\nbody", true},
        {std::string("HTTP/1.1 403 ") + kAgentToken + std::string(500, 'x') + "\r\n\r\n", true},
    };
    for (const auto& [answer, refused] : answers) {
        RawPeer refusing = backend_.accept();
        refusing.send(answer.substr(0, 20));
        EXPECT_NE(refusing.read_request(), "");
        refusing.send(answer.substr(20));
        EXPECT_TRUE(refusing.closed());
        EXPECT_EQ(alert(tui::Alert::TokenRejected), refused) << answer;
    }
    EXPECT_EQ(link(), tui::LinkState::Reconnecting);
    RawPeer peer = accept_registered();
    EXPECT_FALSE(alert(tui::Alert::TokenRejected));
    peer.close();
    EXPECT_TRUE(logged("retry in 1ms", 2)) << "reset after a connection";
    EXPECT_EQ(log_.times("retry in 4ms"), 2) << "doubles up to the limit";
    EXPECT_THAT(log_.text(), HasSubstr("WS handshake rejected: HTTP/1.1 403 ****"));
    EXPECT_THAT(log_.text(), Not(HasSubstr(kAgentToken)));
    // No event for a connection that was never made.
    using enum tui::EventKind;
    expect_events(AlertRaised, PlatformConnected, PlatformLost);
}

TEST_F(SaasConnectorTest, ReportsASecondAgentAndEachLinkChangeOnce) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.set_link_callback(report_platform_link);
    connector.start();
    for (const char* close : {"\x88\x0A\x0F\xA9replaced", "\x88\x02\x0F\xA9"}) {
        RawPeer peer = accept_registered();
        EXPECT_FALSE(alert(tui::Alert::SecondAgent));
        peer.send(close);
        EXPECT_TRUE(peer.closed());
        EXPECT_TRUE(eventually([&] { return alert(tui::Alert::SecondAgent); }));
        EXPECT_TRUE(eventually([&] { return link() == tui::LinkState::Reconnecting; }));
    }
    RawPeer peer = accept_registered();
    for (const char* reason : {"(replaced) and replaced", "(close code 4009) and replaced"})
        EXPECT_TRUE(
            logged("another agent with the same server token connected " + std::string(reason)));
    EXPECT_EQ(log_.count("WARN", "SaasConnector: disconnected, retry in 20ms"), 2);
    using enum tui::EventKind;
    expect_events(PlatformConnected, PlatformLost, AlertRaised, PlatformConnected, PlatformLost,
                  AlertRaised, PlatformConnected);
}

TEST_F(SaasConnectorTest, ResendsCachedMessagesAfterAReconnect) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.send_session_stats("s0", 1, 2, 3, 4, 5);  // before there is a link
    connector.start();
    RawPeer first = accept_registered();
    connector.send_session_ready("s1", "0.0.0.0", 1, 2, 3);
    EXPECT_THAT(first.read_frame(), HasSubstr("session_ready"));
    connector.send_error("code", "text", "s0");
    connector.send_error("code", "no session", "");
    connector.send_session_ended("s0", "disconnect", 7);  // also drops the readiness
    connector.send_session_ready("s2", "0.0.0.0", 1, 2, 3);
    for (int i = 0; i < 4; ++i)
        EXPECT_NE(first.read_frame(), "");
    first.close(true);

    for (int i = 0; i < 2; ++i) {  // at every reconnect
        RawPeer peer = accept_registered();
        EXPECT_THAT(peer.read_frame(), HasSubstr(R"("session_id":"s2","type":"session_ready")"));
        EXPECT_THAT(peer.read_frame(), HasSubstr("\"session_ended\""));  // key "s0"
        EXPECT_EQ(peer.read_frame(),                                     // key "s0#err"
                  R"({"code":"code","message":"text","session_id":"s0","type":"error"})");
        peer.send_text(R"({"type":"ping"})");
        EXPECT_EQ(peer.read_frame(), kPong);
    }
    connector.clear_pending_session_ready();
    RawPeer last = accept_registered();
    EXPECT_THAT(last.read_frame(), HasSubstr("\"session_ended\""));
    EXPECT_EQ(log_.times("discarding 1 stale queued messages on reconnect"), 1);
    EXPECT_EQ(log_.times("re-sending cached terminal message (s0#err)"), 3);
}

TEST_F(SaasConnectorTest, ClosesASilentLinkOnlyIfTheBackendHasPinged) {
    ConnectorTiming timing = quick();
    timing.heartbeat = 5ms;
    timing.silence = 30ms;
    SaasConnector connector(config(backend_.port()), timing);
    connector.start();
    RawPeer peer = accept_registered();
    for (int i = 0; i < 20; ++i)
        EXPECT_THAT(peer.read_frame(), HasSubstr(R"("gpu_pct":0.0,"ram_mb_free":)"));
    peer.send_text(R"({"type":"ping"})");
    EXPECT_TRUE(peer.closed());
    EXPECT_TRUE(logged("ms although the backend pings - closing to reconnect"));
}

TEST_F(SaasConnectorTest, GivesUpAStalledBackend) {
    ConnectorTiming timing = quick();
    timing.link.upgrade = timing.link.frame = 50ms;
    SaasConnector connector(config(backend_.port()), timing);
    connector.start();
    EXPECT_TRUE(backend_.accept().closed());  // never answers the upgrade request
    RawPeer endless = backend_.accept();      // never ends its answer's head
    endless.send(std::string(20'000, 'x'));
    EXPECT_TRUE(endless.closed());
    RawPeer half = accept_registered();  // never ends its frame
    half.send("\x81\x05he");
    EXPECT_TRUE(half.closed());
    connector.stop();

    test::RawBackend silent;  // never answers the TLS handshake
    timing.connection.tls_handshake = 50ms;
    SaasConnector other(config(silent.port(), "127.0.0.1", true), timing);
    other.start();
    EXPECT_TRUE(silent.accept().closed());
    EXPECT_TRUE(logged("[ERROR] SaasConnector: TLS handshake failed: timed out"));
}

TEST_F(SaasConnectorTest, StopsQuicklyInEveryState) {
    const auto expect_quick_stop = [](SaasConnector& connector) {
        const auto start = SteadyClock::now();
        connector.stop();
        connector.stop();
        EXPECT_LT(SteadyClock::now() - start, 3s);
    };
    for (const auto& [where, state] : {
             std::pair{config(1), "TCP connect to 127.0.0.1:1 failed"},
             {config(1, "bad..name"), "cannot resolve bad..name:1"},
             {config(backend_.port()), "connecting to 127.0.0.1:"},  // unanswered upgrade request
             {config(backend_.port(), "127.0.0.1", true), "(wss)"},  // unanswered TLS handshake
         }) {
        SaasConnector connector(where);  // with the program's timing
        connector.start();
        EXPECT_TRUE(logged(state)) << state;
        expect_quick_stop(connector);
    }
    test::RawBackend full_backend(4096);
    SaasConnector connector(config(full_backend.port()));
    connector.start();
    RawPeer full = full_backend.accept();
    full.accept_upgrade();
    for (int i = 0; i < 6; ++i)  // more than the socket buffers hold
        connector.send_error("c", std::string(1'000'000, 'x'), "");
    expect_quick_stop(connector);
}

TEST_F(SaasConnectorTest, LostConnectionsAndStopsAtRandomTimesLeakNothing) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    std::jthread flapping([this](const std::stop_token& stop) {
        for (int i = 0; !stop.stop_requested(); ++i) {  // at different points
            RawPeer peer = backend_.accept();
            if (i % 4 > 0) peer.accept_upgrade(i % 4 == 1 ? "\x81\x20half" : "");
            if (i % 4 > 2) peer.send_text(R"({"type":"terminate_session"})");
            if (i % 4 > 2) peer.read_frame();
            if (i % 2 == 0) peer.close(true);
        }
    });
    ptrdiff_t before = 0;
    for (int i = 0; i < 150; ++i) {
        if (i == 10) before = descriptors();
        SaasConnector connector(config(backend_.port()), quick());
        connector.set_terminate_session_callback([&](const auto& id, const auto& reason) {
            connector.send_session_ended(id, reason, 1);
        });
        connector.start();
        for (int n = 0; n < 20; ++n)
            connector.send_session_stats("s", 1, 2, 3, 4, 5);
        std::this_thread::sleep_for(1us * (i * 7919 % 20'000));
    }
    flapping.request_stop();
    test::TcpClient(backend_.port(), 10s).close();  // ends its accept
    flapping.join();
    EXPECT_LE(descriptors(), before);
}

struct ServerTest : SaasConnectorTest {
    ServerTest() {
        test::ChildProcess made(
            {.argv = {OX_SAAS_TEST_DIR "/make_test_certs.sh", folder_.path().string()}});
        EXPECT_EQ(made.wait(30s), 0);
    }

    /// Starts a server as `host`, with the certificate of that name (none: without TLS).
    SaasConfig serve(const std::string& certificate, const std::string& host) {
        std::vector<std::string> argv{OX_TEST_PYTHON, OX_SAAS_TEST_DIR "/websocket_backend.py"};
        if (!certificate.empty()) argv.push_back(folder_.file(certificate));
        const std::string output = folder_.file("output of " + certificate);
        output_ = test::LogFile(output);
        server_.emplace(test::ChildProcess::Options{.argv = argv, .stdout_path = output});
        const auto line = output_.wait_for("port ", 20s);
        EXPECT_TRUE(line);
        return config(static_cast<uint16_t>(std::stoi(line.value_or("port 0").substr(5))), host,
                      !certificate.empty());
    }

    bool printed(const std::string& line, size_t times = 1) {
        return output_.wait_for(line, 10s, times).has_value();
    }

    test::TempDir folder_;
    const test::Environment trust_{"SSL_CERT_FILE", folder_.file("ca.pem")};
    test::LogFile output_{""};  ///< of the newest server
    std::optional<test::ChildProcess> server_;
};

TEST_F(ServerTest, WorksOverPlainTcpAndTls) {
    for (const auto& [certificate, host, sni] : {std::tuple{"", "127.0.0.1", "path"},
                                                 {"name", "localhost", "sni localhost"},
                                                 {"address", "127.0.0.1", "sni None"}}) {
        SCOPED_TRACE(sni);
        SaasConnector connector(serve(certificate, host), quick());
        std::atomic<size_t> id_size{0};
        connector.set_prepare_session_callback(
            [&](const PrepareSessionParams& params) { id_size = params.session_id.size(); });
        connector.start();
        EXPECT_TRUE(printed(sni));
        for (const char* line : {"path /agent/connect", "token agent-secret-token",
                                 R"(message {"agent_version":)", R"(message {"type":"pong"})"})
            EXPECT_TRUE(printed(line)) << line;
        EXPECT_TRUE(eventually([&] { return id_size == 70'000; }));
        const size_t around = error_message("c", "", "").size();
        for (const size_t size : {125, 126, 65'535, 65'536, 500'000})
            connector.send_error("c", std::string(size - around, 'x'), "");
        EXPECT_TRUE(printed(R"(message {"code":"c")", 5));
        connector.send_session_ended("s1", "shutdown", 1);
        connector.stop();
        EXPECT_TRUE(printed(R"(message {"duration_sec":1,"reason":"shutdown")"));
        EXPECT_TRUE(printed("closed 1006"));  // no close frame; the connection just ends
    }
    EXPECT_TRUE(logged("SaasConnector: TLS established (TLS_"));
}

TEST_F(ServerTest, RefusesUntrustedCertificates) {
    for (const auto& [certificate, host, fault] : {
             std::tuple{"expired", "localhost", "certificate has expired"},
             {"self_signed", "localhost", "self-signed certificate"},
             {"other_name", "localhost", "hostname mismatch"},
             {"name", "127.0.0.1", "IP address mismatch"},
         }) {
        SaasConnector connector(serve(certificate, host), quick());
        connector.start();
        EXPECT_TRUE(logged(std::string("certificate verify failed (") + fault + ")"))
            << log_.text();
        connector.stop();
        EXPECT_EQ(output_.count("path "), 0U) << certificate;
    }
}

}  // namespace
}  // namespace ox
