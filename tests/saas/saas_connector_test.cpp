#include "saas/saas_connector.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include "saas/connector_fixture.h"
#include "saas/raw_backend.h"
#include "support/dead_peer.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::eventually;
using test::RawPeer;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kPong = R"({"type":"pong"})";

class SaasConnectorTest : public test::ConnectorTest {
  protected:
    test::RawBackend backend_;

    /// Accepts the next connection and reads the registration.
    RawPeer accept_registered() {
        RawPeer peer = backend_.accept();
        peer.accept_upgrade();
        EXPECT_THAT(peer.read_frame().value_or(""), HasSubstr(R"("type":"register")"));
        return peer;
    }

    static std::vector<tui::EventKind> events() {
        std::vector<tui::EventKind> kinds;
        for (const auto& event : tui::board().snapshot().events)
            kinds.push_back(event.kind);
        return kinds;
    }
};

TEST_F(SaasConnectorTest, RegistersHandsRequestsOverAndKeepsTheLinkThroughNonsense) {
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
    EXPECT_THAT(peer.read_frame().value_or(""), HasSubstr(R"("type":"register")"));
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
    EXPECT_THAT(log, HasSubstr(R"(raw={"type":"prepare_session","encryption_key":"*********",)"
                               R"("session_token_sha256":"****","client_id":1})"));
    EXPECT_THAT(log, HasSubstr(R"([WARN ] SaasConnector: invalid JSON: {"encryption_key":"*)"));
    for (const char* secret : {"S3CRETKEY", "5EC0", test::kAgentToken})
        EXPECT_THAT(log, Not(HasSubstr(secret)));
}

TEST_F(SaasConnectorTest, ReportsARefusedTokenUntilAHandshakeSucceeds) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.start();
    const std::pair<std::string, bool> answers[] = {
        {"HTTP/1.1 500 Oh no\r\nX: 403 401\r\n\r\n", false},
        {"HTTP/1.1 101 OK, or so\r\n\r\n", false},
        {"HTTP/1.1 401 Unauthorized\r\n\r\nbody", true},
        {std::string("HTTP/1.1 403 ") + test::kAgentToken + std::string(500, 'x') + "\r\n\r\n",
         true},
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
    EXPECT_THAT(log_.text(), HasSubstr("WS handshake rejected: HTTP/1.1 403 ****"));
    EXPECT_THAT(log_.text(), Not(HasSubstr(test::kAgentToken)));
    // One event for the alert, none for connections that never were.
    EXPECT_THAT(events(), ::testing::ElementsAre(tui::EventKind::AlertRaised,
                                                 tui::EventKind::PlatformConnected));
}

TEST_F(SaasConnectorTest, ReportsASecondAgentAndLinkChangesOnce) {
    SaasConnector connector(config(backend_.port()), quick());
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
    for (const char* reason : {"replaced", "close code 4009"}) {
        EXPECT_THAT(log_.text(), HasSubstr("another agent with the same server token connected (" +
                                           std::string(reason) +
                                           ") and replaced this one - two "
                                           "agents must not share one server token; waiting"));
    }
    EXPECT_EQ(log_.count("WARN", "SaasConnector: disconnected, retry in 20ms"), 2);
    using enum tui::EventKind;
    EXPECT_THAT(events(), ::testing::ElementsAre(PlatformConnected, PlatformLost, AlertRaised,
                                                 PlatformConnected, PlatformLost, AlertRaised,
                                                 PlatformConnected));
}

TEST_F(SaasConnectorTest, TellsAgainWhatMattersAfterAReconnect) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.send_session_stats("s0", 1, 2, 3, 4, 5);  // stale before there ever was a link
    connector.start();
    RawPeer first = accept_registered();
    connector.send_session_ready("s1", "0.0.0.0", 1, 2, 3);
    EXPECT_THAT(first.read_frame().value_or(""), HasSubstr("session_ready"));
    connector.send_error("code", "text", "s0");
    connector.send_error("code", "no session", "");
    connector.send_session_ended("s0", "disconnect", 7);  // also ends the readiness
    connector.send_session_ready("s2", "0.0.0.0", 1, 2, 3);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(first.read_frame());
    first.close(true);

    for (int i = 0; i < 2; ++i) {  // told at every reconnect
        RawPeer peer = accept_registered();
        EXPECT_THAT(peer.read_frame().value_or(""),
                    HasSubstr(R"("session_id":"s2","type":"session_ready")"));
        EXPECT_THAT(peer.read_frame().value_or(""), HasSubstr("\"session_ended\""));  // key "s0"
        EXPECT_THAT(peer.read_frame().value_or(""), HasSubstr("\"error\""));  // key "s0#err"
        peer.send_text(R"({"type":"ping"})");
        EXPECT_EQ(peer.read_frame(), kPong);
    }
    connector.clear_pending_session_ready();
    RawPeer last = accept_registered();
    EXPECT_THAT(last.read_frame().value_or(""), HasSubstr("\"session_ended\""));
    EXPECT_EQ(log_.count("WARN", "SaasConnector: discarding 1 stale queued messages on reconnect"),
              1);
    EXPECT_EQ(log_.count("INFO", "SaasConnector: re-sending cached terminal message (s0#err)"), 3);
}

TEST_F(SaasConnectorTest, SilenceCountsOnlyFromABackendThatHasPinged) {
    ConnectorTiming timing = quick();
    timing.heartbeat = milliseconds(5);
    timing.silence = milliseconds(30);
    SaasConnector connector(config(backend_.port()), timing);
    connector.start();
    RawPeer peer = accept_registered();
    for (int i = 0; i < 20; ++i)
        EXPECT_THAT(peer.read_frame().value_or(""), HasSubstr(R"("gpu_pct":0.0,"ram_mb_free":)"));
    peer.send_text(R"({"type":"ping"})");
    EXPECT_TRUE(peer.closed());
    RawPeer next = accept_registered();
    EXPECT_THAT(log_.text(), HasSubstr("ms although the backend pings - closing to reconnect"));
}

TEST_F(SaasConnectorTest, NeverWaitsLongForAStalledBackend) {
    ConnectorTiming timing = quick();
    timing.link.upgrade = timing.link.frame_rest = milliseconds(50);
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

    test::RawBackend speechless;  // never answers the TLS hello
    SaasConfig encrypted = config(speechless.port());
    encrypted.tls = true;
    timing.transport.tls_handshake = milliseconds(50);
    SaasConnector other(encrypted, timing);
    other.start();
    EXPECT_TRUE(speechless.accept().closed());
    EXPECT_THAT(log_.text(), HasSubstr("[ERROR] SaasConnector: TLS handshake failed: timed out"));
}

TEST_F(SaasConnectorTest, StopsSoonInEveryState) {
    const auto stop_takes = [](SaasConnector& connector) {
        const auto start = SteadyClock::now();
        connector.stop();
        connector.stop();
        return SteadyClock::now() - start;
    };
    SaasConfig in_tls_handshake = config(backend_.port());
    in_tls_handshake.tls = true;
    const std::string refused = "TCP connect to 127.0.0.1:1 failed";
    for (const auto& [where, state] : {
             std::pair{config(1), refused},
             {config(1, "bad..name"), "cannot resolve bad..name:1"},
             {config(backend_.port()), "connecting to 127.0.0.1:"},  // unanswered upgrade request
             {in_tls_handshake, "(wss)"},
         }) {
        SaasConnector connector(where);  // with the program's own waits
        connector.start();
        EXPECT_TRUE(eventually([&] { return log_.times(state) > 0; }));
        EXPECT_LT(stop_takes(connector), seconds(2)) << state;
    }
    test::RawBackend deaf_backend(4096);
    SaasConnector connector(config(deaf_backend.port()));
    connector.start();
    RawPeer deaf = deaf_backend.accept();
    deaf.accept_upgrade();
    for (int i = 0; i < 6; ++i)  // more than the socket holds
        connector.send_error("c", std::string(1'000'000, 'x'), "");
    EXPECT_LT(stop_takes(connector), seconds(3));
}

TEST_F(SaasConnectorTest, ConnectionsLostAndStopsAtRandomMomentsLeaveNothingBehind) {
    const auto entries = [](const char* folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    std::mt19937 random(7);  // NOLINT: the same moments in each run
    std::jthread flapping([this](const std::stop_token& stop) {
        for (int i = 0; !stop.stop_requested(); ++i) {  // ends them at different points
            RawPeer peer = backend_.accept();
            if (i % 4 > 0) peer.accept_upgrade(i % 4 == 1 ? "\x81\x20half" : "");
            if (i % 4 > 2) peer.send_text(R"({"type":"terminate_session"})");
            if (i % 4 > 2) peer.read_frame();
            if (i % 2 == 0) peer.close(true);
        }
    });
    ptrdiff_t descriptors = 0;
    ptrdiff_t threads = 0;
    for (int i = 0; i < 150; ++i) {
        if (i == 10) {
            descriptors = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
        SaasConnector connector(config(backend_.port()), quick());
        connector.set_terminate_session_callback([&](const auto& id, const auto& reason) {
            connector.send_session_ended(id, reason, 1);
        });
        connector.start();
        std::jthread sender([&] {
            for (int n = 0; n < 20; ++n)
                connector.send_session_stats("s", 1, 2, 3, 4, 5);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20'000));
        connector.stop();
    }
    EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; }));
    flapping.request_stop();
    test::TcpClient wakes_its_accept(backend_.port(), seconds(10));
    flapping.join();
    wakes_its_accept.close();
    EXPECT_LE(entries("/proc/self/fd"), descriptors);
}

TEST(ReconnectBackoff, DoublesUpToTheLimitAndStartsAgainAfterAConnection) {
    ReconnectBackoff backoff({});
    const auto wait = [&](bool handshaken, uint16_t code = 0) {
        return backoff.next_wait(handshaken, code).count();
    };
    for (const int expected : {1, 2, 4, 8, 16, 30, 30})
        EXPECT_EQ(wait(false), 1000 * expected);
    EXPECT_EQ(wait(true, 1006), 1000);
    EXPECT_EQ(wait(false), 2000);
    EXPECT_EQ(wait(true, kCloseReplaced), 30'000);
    EXPECT_EQ(wait(false), 2000);
}

}  // namespace
}  // namespace ox
