// What is read from a launcher, and what is chosen from it.

#include <gtest/gtest.h>
#include <sodium.h>

#include <set>
#include <string>

#include "control/auth_message.h"
#include "control/control_message.h"
#include "control/session_keys.h"
#include "control/udp_destination.h"

namespace ox {
namespace {

TEST(AuthMessage, FillsInWhatIsMissingAndBringsNumbersIntoRange) {
    const struct {
        std::string fields;
        int32_t width;
        uint32_t caps;
    } rows[] = {
        {"", 1920, 0},
        {R"(,"width":-60.9,"caps":-5)", -60, 0},
        {R"(,"width":1099511627776,"caps":4294967293)", INT32_MAX, 4294967293u},
        {R"(,"width":-1e300,"caps":18446744073709551615)", INT32_MIN, UINT32_MAX},
    };
    for (const auto& [fields, width, caps] : rows) {
        AuthMessage message;
        ASSERT_FALSE(
            parse_auth_message(R"({"token":"a\u0000b","type":"auth")" + fields + "}", message));
        EXPECT_EQ(message.width, width) << fields;
        EXPECT_EQ(message.caps, caps) << fields;
        EXPECT_EQ(message.token.text(), std::string("a\0b", 3));
        EXPECT_EQ(message.bitrate, 15000);
    }
}

TEST(AuthMessage, RefusesWithATextThatIsFitForTheLog) {
    const std::pair<std::string, const char*> rows[] = {
        {"\xff\x00\x1b[2J garbage", "invalid literal"},
        {std::string("{\"type\":\"auth\"}\0{", 17), "NUL byte"},
        {R"({"type":"auth","token":["SECRET"]})", "'token' must be a string, but is array"},
        {R"({"type":"auth","token":"SECRET)", "missing closing quote"},
        {R"({"type":"auth","token":1e99999})", "number overflow"},
        {R"({"type":"a\nb\u001b[2J\u009b"})", "ab[2J"},
    };
    for (const auto& [line, part] : rows) {
        AuthMessage message;
        const auto error = parse_auth_message(line, message);
        ASSERT_TRUE(error) << line;
        EXPECT_NE(error->text.find(part), std::string::npos) << error->text;
        for (const char* secret : {"SECRET", "99999"})
            EXPECT_EQ(error->text.find(secret), std::string::npos) << error->text;
    }
}

// The message as a text that a row of the table can be compared with.
std::string read(const std::string& line) {
    const auto message = parse_control_line(line);
    if (const auto* ping = std::get_if<PingMessage>(&message)) return std::to_string(ping->ts);
    if (const auto* named = std::get_if<NamedMessage>(&message)) return "named " + named->type;
    if (const auto* bad = std::get_if<MalformedMessage>(&message)) return "malformed " + bad->why;
    if (const auto* change = std::get_if<SettingsChange>(&message)) {
        return "settings " + std::to_string(change->bitrate) + " " + std::to_string(change->fps) +
               " " + std::to_string(change->width) + " " + std::to_string(change->height);
    }
    return std::holds_alternative<std::monostate>(message) ? "none" : "stats";
}

TEST(ControlMessage, ReadsEachKind) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"ts":-9223372036854775808,"type":"ping"})", "-9223372036854775808"},
        {R"({"ts":18446744073709551615,"type":"ping"})", "-1"},
        {R"({"ts":-1e19,"type":"ping"})", "-9223372036854775808"},
        {R"({"type":"anything else","ts":"no ping, so of any type"})", "named anything else"},
        {R"({"type":"set_settings","fps":30.7,"height":1e300,"width":-1099511627776})",
         "settings 0 30 -2147483648 2147483647"},
        {"{}", "none"},
        {R"({"ts":"soon","type":"ping"})", "malformed 'ts' must be a number, but is string"},
        {R"("ping")", "malformed an object is expected, not a string"},
    };
    for (const auto& [line, message] : rows) {
        EXPECT_EQ(read(line), message) << line;
    }
    EXPECT_EQ(make_pong(-12345), R"({"ts":-12345,"type":"pong"})");
}

// What is derived from a master key is pinned by the wire vectors.
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
}  // namespace ox
