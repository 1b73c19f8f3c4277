// Holds the code against the vectors and the limits of docs/platform-protocol.md, which are read
// from that file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>

#include <chrono>
#include <string>
#include <utility>

#include "saas/outgoing_messages.h"
#include "saas/platform_messages.h"
#include "saas/saas_connector.h"
#include "saas/ws_frame.h"
#include "saas/ws_upgrade.h"
#include "support/vector_document.h"

namespace ox {
namespace {

using test::VectorDocument;

std::string hex(const Secret& bytes) {
    std::string text(2 * bytes.size() + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), bytes.data(), bytes.size());
    text.pop_back();
    return text;
}

/// A vector of the other document, which has the session's key and token, too.
std::string wire_hex(const std::string& name) {
    std::string text = VectorDocument(OX_WIRE_DOCUMENT).line(name);
    std::erase(text, ' ');
    return text;
}

template <typename T>
T parsed(VectorDocument& doc, const std::string& name) {
    PlatformMessage message = parse_platform_message(doc.line(name));
    EXPECT_TRUE(std::holds_alternative<T>(message)) << name;
    return std::holds_alternative<T>(message) ? std::get<T>(std::move(message)) : T{};
}

void check_outgoing(VectorDocument& doc) {
    EXPECT_EQ(ws_build_handshake("backend.example",
                                 "dGhlIHNhbXBsZSBub25jZQ==", "the token\n of this PC\r\n"),
              doc.block("upgrade-request", "\r\n"));
    SaasConfig config;
    config.agent_version = "0.4.448";
    config.system_info = {.cpu_model = "Example CPU with 8 cores",
                          .os_version = "Debian GNU/Linux 12 (bookworm)",
                          .gpu_model = "Example GPU",
                          .ram_mb = 32'000};
    config.port_base = 47998;
    config.max_fps = 60;
    config.max_resolution = "1920x1080";
    config.supported_codecs = {"h264", "hevc"};
    EXPECT_EQ(register_message(config), doc.line("register"));
    EXPECT_EQ(heartbeat_message(12.5F, 20'480.5), doc.line("heartbeat"));
    EXPECT_EQ(pong_message(), doc.line("pong"));
    EXPECT_EQ(session_ready_message("s-1", "0.0.0.0", 47998, 47999, 48000),
              doc.line("session-ready"));
    const SessionStats stats{.fps = 59.5F,
                             .bitrate_kbps = 15'000.0F,
                             .latency_ms = 18.0F,
                             .packet_loss_pct = 0.25F,
                             .uptime_sec = 10.0F};
    EXPECT_EQ(session_stats_message("s-1", stats), doc.line("session-stats"));
    EXPECT_EQ(session_ended_message("s-1", "saas_terminated", 3600), doc.line("session-ended"));
    EXPECT_EQ(error_message("capture_failed", "no display", "s-1"), doc.line("error"));
    EXPECT_EQ(error_message("internal", "no more threads", ""), doc.line("error-without-session"));
}

void check_incoming(VectorDocument& doc) {
    parsed<BackendPing>(doc, "ping");
    const auto terminate = parsed<TerminateSession>(doc, "terminate-session");
    EXPECT_EQ(terminate.session_id + "/" + terminate.reason, "s-1/time is up");

    const auto full = parsed<PrepareSessionParams>(doc, "prepare-session");
    EXPECT_EQ(full.session_id + "/" + full.client_id, "s-1/player-7");
    EXPECT_EQ(full.max_duration_sec, 7200U);
    EXPECT_EQ(full.codec + "/" + full.resolution, "hevc/2560x1440");
    EXPECT_EQ(full.fps, 120U);
    EXPECT_EQ(full.bitrate_kbps, 30'000U);
    EXPECT_TRUE(full.hide_desktop);
    EXPECT_TRUE(full.launch_steam);
    EXPECT_EQ(full.steam_app_id, "480");

    const auto smallest = parsed<PrepareSessionParams>(doc, "prepare-session-smallest");
    EXPECT_EQ(smallest.session_id + "/" + smallest.client_id, "s-2/");
    EXPECT_EQ(smallest.max_duration_sec, 3600U);
    EXPECT_EQ(smallest.codec + "/" + smallest.resolution, "h264/1920x1080");
    EXPECT_EQ(smallest.fps, 60U);
    EXPECT_EQ(smallest.bitrate_kbps, 15'000U);
    EXPECT_FALSE(smallest.hide_desktop || smallest.launch_steam);
    EXPECT_EQ(smallest.steam_app_id, "");

    for (const auto* params : {&full, &smallest}) {
        EXPECT_EQ(hex(params->encryption_key), wire_hex("master-key"));
        EXPECT_EQ(params->session_token_sha256, wire_hex("token-sha256"));
    }
}

void check_limits(const VectorDocument& doc) {
    const auto states = [&](const std::string& what, const std::string& limit) {
        EXPECT_THAT(doc.text(), testing::HasSubstr("\n| " + what + " | " + limit + " |\n"));
    };
    const auto states_time = [&](const std::string& what, std::chrono::milliseconds limit) {
        const auto ms = limit.count();
        states(what,
               ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms");
    };
    const ConnectorTiming timing;
    states_time("connecting, for each address", timing.connection.connect);
    states_time("TLS handshake", timing.connection.tls_handshake);
    states_time("head of the answer to the upgrade", timing.link.upgrade);
    states_time("pause within a frame to the agent", timing.link.frame);
    states_time("backend that reads nothing", timing.connection.write);
    states_time("period of `heartbeat`", timing.heartbeat);
    states_time("silence after a `ping`", timing.silence);
    states_time("first wait before a reconnect", timing.backoff.first);
    states_time("longest wait before a reconnect", timing.backoff.longest);
    states_time("wait after close code " + std::to_string(kCloseReplaced), timing.backoff.replaced);
    states_time("last messages of an agent that is stopped", timing.drain_timeout);
    states("message to the agent", std::to_string(kMaxWsMessage) + " bytes");
    states("messages that are sent again", std::to_string(FinalMessageCache::kMaxEntries));
}

TEST(PlatformVectors, CodeAndDocumentAgree) {
    VectorDocument doc(OX_PLATFORM_DOCUMENT);
    check_outgoing(doc);
    check_incoming(doc);
    check_limits(doc);
    doc.expect_all_used();
}

}  // namespace
}  // namespace ox
