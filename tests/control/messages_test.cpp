// What is read from a launcher, and what is chosen from it.

#include <gtest/gtest.h>
#include <sodium.h>

#include <set>
#include <string>

#include "control/auth_message.h"
#include "control/session_keys.h"
#include "control/udp_destination.h"

namespace ox {
namespace {

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
