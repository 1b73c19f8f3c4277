#include <gtest/gtest.h>
#include <sodium.h>

#include <set>
#include <vector>

#include "control/session_keys.h"
#include "control/udp_destination.h"

namespace ox {
namespace {

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
}  // namespace ox
