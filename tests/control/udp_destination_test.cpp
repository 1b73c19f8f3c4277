#include "control/udp_destination.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

TEST(UdpDestination, PrivateAddresses) {
    for (const char* ip : {"10.0.0.0", "10.255.255.255", "172.16.0.1", "172.31.255.255",
                           "192.168.0.1", "127.255.0.1"}) {
        EXPECT_TRUE(is_private_ip(ip)) << ip;
    }
    for (const char* ip : {"", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.169.1.1", "0.0.0.0",
                           "10.1", "10.0.0.1 ", "010.0.0.1", "10.0.0.256", "::1", "localhost"}) {
        EXPECT_FALSE(is_private_ip(ip)) << ip;
    }
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
