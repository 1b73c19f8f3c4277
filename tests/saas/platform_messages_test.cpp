// The platform's messages and URL; the code against the vectors of docs/platform-protocol.md, which
// are read from that file.

#include "saas/platform_messages.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "saas/outgoing_messages.h"
#include "saas/redaction.h"
#include "saas/saas_config.h"
#include "saas/ws_frame.h"
#include "saas/ws_upgrade.h"
#include "support/vector_document.h"

namespace ox {
namespace {

using test::VectorDocument;

// The vectors have every message with good values.
TEST(PlatformMessages, TextAndNumbersThatJsonDoesNotHaveAreReplaced) {
    SaasConfig config;
    config.system_info.cpu_model = "bad \xff byte";
    EXPECT_EQ(register_message(config),
              R"({"agent_version":"1.0.0","cpu_model":"bad )"
              "\xEF\xBF\xBD"
              R"( byte","gpu_model":"","gpu_vram_mb":0,"os_version":"","port_base":0,)"
              R"("ram_mb":0,"supported_codecs":[],"type":"register"})");
    EXPECT_EQ(
        session_stats_message("s", {.fps = 60.0F, .bitrate_kbps = NAN, .latency_ms = INFINITY}),
        R"({"bitrate_kbps":0.0,"fps":60.0,"latency_ms":0.0,"packet_loss_pct":0.0,)"
        R"("session_id":"s","type":"session_stats","uptime_sec":0.0})");
}

template <typename T>
T parsed(const std::string& text) {
    PlatformMessage message = parse_platform_message(text);
    EXPECT_TRUE(std::holds_alternative<T>(message)) << text;
    return std::holds_alternative<T>(message) ? std::get<T>(std::move(message)) : T{};
}

std::string prepare(const std::string& members) {
    return R"({"type":"prepare_session")" + members + "}";
}

/// Everything but the key.
std::string text_of(const PrepareSessionParams& p) {
    std::ostringstream text;
    text << p.session_id << "/" << p.client_id << " " << p.session_token_sha256 << " " << p.codec
         << " " << p.resolution << " " << p.fps << " " << p.bitrate_kbps << " "
         << p.max_duration_sec << " " << p.hide_desktop << p.launch_steam << p.steam_app_id;
    return text.str();
}

// The vectors have every field.
TEST(PlatformMessages, PrepareSessionIgnoresWhatItCannotUse) {
    for (const auto& [members, text] : {
             std::pair{R"(,"constraints":[1],"session_isolation":3,"session_id":null)",
                       "/  h264 1920x1080 60 15000 3600 00"},
             // Integers are truncated to 32 bits, floats are clamped.
             {R"(,"max_duration_sec":1099511627777)", "/  h264 1920x1080 60 15000 1 00"},
             {R"(,"max_duration_sec":-1e300)", "/  h264 1920x1080 60 15000 0 00"},
         })
        EXPECT_EQ(text_of(parsed<PrepareSessionParams>(prepare(members))), text);
    for (const std::string key : {"AAECAw", "AAEC Aw==", "AAE-", "AAECAw==x", "===="}) {
        const auto message = prepare(R"(,"encryption_key":")" + key + "\"");
        EXPECT_EQ(parsed<PrepareSessionParams>(message).encryption_key.size(), 0U);
    }
}

TEST(PlatformMessages, RefusesWrongTypes) {
    using Kind = BadMessage::Kind;
    for (const char* member :
         {R"("session_id":1)", R"("client_id":[])", R"("max_duration_sec":"60")",
          R"("session_token_sha256":{})", R"("encryption_key":[1,2])",
          R"("constraints":{"max_fps":"60"})", R"("constraints":{"codec":4})",
          R"("session_isolation":{"hide_desktop":1})"})
        EXPECT_EQ(parsed<BadMessage>(prepare(std::string(",") + member)).kind, Kind::BadPrepare);
    for (const char* text : {R"({"type":3})", R"({"type":"terminate_session","session_id":[]})"})
        EXPECT_EQ(parsed<BadMessage>(text).kind, Kind::WrongType);
    for (const char* text : {"", "{\"type\":NaN}", "{}{}"})
        EXPECT_EQ(parsed<BadMessage>(text).kind, Kind::InvalidJson) << text;
    for (const std::string& text : {std::string("{}"), std::string("[]"), std::string("3"),
                                    std::string(500'000, '[') + std::string(500'000, ']')})
        EXPECT_EQ(parsed<UnknownMessage>(text).type, "");
}

TEST(Redaction, MasksSecretMembersInPlace) {
    for (const auto& [text, expected] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"encryption_key" : "Ab+/","id":"Ab+/"})",
              R"({"encryption_key" : "****","id":"Ab+/"})"},
             {R"({"x":{"session_token_sha256":"a\"b\\"},"y":1})",
              R"({"x":{"session_token_sha256":"******"},"y":1})"},
             {R"({"encryption\u005fkey":"k","type":"t"})",
              R"({"encryption\u005fkey":"*","type":"t"})"},
             {R"({"encryption_key":[1,"}k",{"a":22}],"z":"]"})",
              R"({"encryption_key":[*,"}*",{"*":**}],"z":"]"})"},
             {R"({"encryption_key":-12.5,"n":-12.5})", R"({"encryption_key":*****,"n":-12.5})"},
             {R"({"a":"encryption_key","b":"encryption_key: x"})",
              R"({"a":"encryption_key","b":"encryption_key: x"})"},
             {R"({"encryption_key":"unfinished)", R"({"encryption_key":"**********)"},
             {R"({"encryption_key":)", R"({"encryption_key":)"}}) {
        EXPECT_EQ(redact_secrets(text), expected);
    }
    EXPECT_EQ(redact_broken_json(R"({'id':1,'encryption_key':'Ab+/', x)"),
              R"({'id':1,'encryption_key':'****', *)");
}

TEST(Redaction, ForeignTextCannotForgeALogLine) {
    EXPECT_EQ(loggable("a\r\nb\x1b[2J\x7f"), "a b[2J");
    const std::string secret(kShortestSecret, 's');
    EXPECT_EQ(loggable("x " + secret + " y " + secret, 100, secret),
              "x **************** y ****************");
    EXPECT_EQ(loggable("xxx" + secret, 6, secret), "xxx***");
    EXPECT_EQ(loggable("replaced", 100, "a"), "replaced");  // too short
    EXPECT_EQ(loggable("ab\xD1\x8F", 3), "ab");             // whole characters
}

TEST(PlatformUrl, IsSplitAndChecked) {
    const std::pair<const char*, const char*> rows[] = {
        {"wss://host/some/path:9", "host 443 tls"},
        {"ws://host:9000rest", "host 9000"},
        {"WS://host", "--saas-url must start with ws:// or wss:// ('WS://host')"},
        {"ws://", "--saas-url 'ws://': bad host/port"},
        {"ws://host:65536", "--saas-url 'ws://host:65536': bad host/port"},
    };
    for (const auto& [url, expected] : rows) {
        const auto result = parse_platform_url(url);
        std::ostringstream text;
        if (const auto* endpoint = std::get_if<PlatformEndpoint>(&result))
            text << endpoint->host << " " << endpoint->port << (endpoint->tls ? " tls" : "");
        else
            text << std::get<std::string>(result);
        EXPECT_EQ(text.str(), expected) << url;
    }
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
    EXPECT_EQ(session_stats_message("s-1", {59.5F, 15'000.0F, 18.0F, 0.25F, 10.0F}),
              doc.line("session-stats"));
    EXPECT_EQ(session_ended_message("s-1", "saas_terminated", 3600), doc.line("session-ended"));
    EXPECT_EQ(error_message("capture_failed", "no display", "s-1"), doc.line("error"));
    EXPECT_EQ(error_message("internal", "no more threads", ""), doc.line("error-without-session"));
}

void check_incoming(VectorDocument& doc) {
    parsed<BackendPing>(doc.line("ping"));
    const auto terminate = parsed<TerminateSession>(doc.line("terminate-session"));
    EXPECT_EQ(terminate.session_id + "/" + terminate.reason, "s-1/time is up");
    VectorDocument wire(OX_WIRE_DOCUMENT);  // has the session's key and token
    std::string token = wire.line("token-sha256");
    std::erase(token, ' ');
    for (const auto& [name, text] :
         {std::pair{"prepare-session",
                    "s-1/player-7 " + token + " hevc 2560x1440 120 30000 7200 11480"},
          {"prepare-session-smallest", "s-2/ " + token + " h264 1920x1080 60 15000 3600 00"}}) {
        const auto params = parsed<PrepareSessionParams>(doc.line(name));
        EXPECT_EQ(text_of(params), text);
        EXPECT_EQ(params.encryption_key, wire.hex("master-key"));
    }
}

TEST(PlatformVectors, CodeAndDocumentAgree) {
    VectorDocument doc(OX_PLATFORM_DOCUMENT);
    check_outgoing(doc);
    check_incoming(doc);
    doc.expect_all_used();
}

}  // namespace
}  // namespace ox
