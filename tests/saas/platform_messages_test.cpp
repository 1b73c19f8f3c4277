#include "saas/platform_messages.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "saas/redaction.h"
#include "saas/saas_config.h"

namespace ox {
namespace {

TEST(PlatformMessages, AreCompactWithAscendingKeys) {
    SaasConfig config;
    config.agent_version = "9.9";
    config.system_info = {
        .cpu_model = "bad \xff byte", .os_version = "os", .gpu_model = "gpu", .ram_mb = 16'000};
    config.port_base = 47998;
    config.supported_codecs = {"h264", "hevc"};
    EXPECT_EQ(register_message(config),
              R"({"agent_version":"9.9","cpu_model":"bad )"
              "\xEF\xBF\xBD"
              R"( byte",)"
              R"("gpu_model":"gpu","gpu_vram_mb":0,"os_version":"os","port_base":47998,)"
              R"("ram_mb":16000,"supported_codecs":["h264","hevc"],"type":"register"})");
    config.max_fps = 60;
    config.max_resolution = "1920x1080";
    EXPECT_NE(register_message(config).find(R"("max_fps":60,"max_resolution":"1920x1080")"),
              std::string::npos);

    EXPECT_EQ(
        heartbeat_message(12.5F, 2048.0),
        R"({"cpu_pct":12.5,"gpu_pct":0.0,"ram_mb_free":2048.0,"status":"online","type":"heartbeat"})");
    EXPECT_EQ(
        session_stats_message("s", {.fps = 60.0F,
                                    .bitrate_kbps = NAN,
                                    .latency_ms = INFINITY,
                                    .packet_loss_pct = 0.5F,
                                    .uptime_sec = 3.0F}),
        R"({"bitrate_kbps":0.0,"fps":60.0,"latency_ms":0.0,"packet_loss_pct":0.5,"session_id":"s","type":"session_stats","uptime_sec":3.0})");
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

TEST(PlatformMessages, PrepareSessionFieldsAndDefaults) {
    for (const auto& [members, text] : {
             std::pair{"", "h264 1920x1080 60 15000 3600"},
             {R"(,"constraints":[1],"session_isolation":3,"session_id":null)",
              "h264 1920x1080 60 15000 3600"},
             {R"(,"session_id":"s1","session_token_sha256":"ab","max_duration_sec":60,
                 "constraints":{"codec":"hevc","resolution":"1x2","max_fps":30,"bitrate_kbps":9})",
              "s1abhevc 1x2 30 9 60"},
             // Integers are truncated to 32 bits, floats are clamped.
             {R"(,"max_duration_sec":1099511627777)", "h264 1920x1080 60 15000 1"},
             {R"(,"max_duration_sec":-1e300)", "h264 1920x1080 60 15000 0"},
         }) {
        const auto p = parsed<PrepareSessionParams>(prepare(members));
        std::ostringstream got;
        got << p.session_id << p.session_token_sha256 << p.codec << " " << p.resolution << " "
            << p.fps << " " << p.bitrate_kbps << " " << p.max_duration_sec;
        EXPECT_EQ(got.str(), text);
    }
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
        {"wss://a.example:8443/x", "a.example 8443 tls"},
        {"ws://host:9000rest", "host 9000"},
        {"ws://[::1]:9000", "[::1]:9000 80"},
        {"WS://host", "--saas-url must start with ws:// or wss:// ('WS://host')"},
        {"ws://", "--saas-url 'ws://': bad host/port"},
        {"ws://host:0", "--saas-url 'ws://host:0': bad host/port"},
        {"ws://host:abc", "--saas-url 'ws://host:abc': bad host/port"},
        {"ws://host:65617", "host 81"},
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

}  // namespace
}  // namespace ox
