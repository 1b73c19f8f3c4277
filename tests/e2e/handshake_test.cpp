// The control port taken by another program: the next launcher still gets in.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "e2e/player.h"
#include "support/sockets.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

TEST(Handshake, ABusyPortIsSaidOnceAndWaitedFor) {
    auto ports = std::make_shared<PortBlock>();
    UniqueFd occupier = bound_socket(SOCK_STREAM, ports->control());
    Agent agent({.ports = ports});
    const std::string bind_failed = "TcpControlServer: bind :" + std::to_string(ports->control()) +
                                    " failed: Address already in use";
    ASSERT_TRUE(agent.wait_for_log(bind_failed));
    EXPECT_TRUE(agent.screen().wait_for(std::to_string(ports->control()), kPatience))
        << "the owner is not told";
    const auto cpu_before = agent.process().cpu_time();
    std::this_thread::sleep_for(1s);  // four looks at the port, of which nothing is to come
    EXPECT_EQ(agent.log().count(bind_failed), 1U);
    EXPECT_LE(agent.process().cpu_time() - cpu_before, 100ms) << "hot loop";
    occupier.reset();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Port ", kPatience));
    EXPECT_TRUE(Player(agent).receive_frames(1));
    EXPECT_EQ(agent.screen().count(std::to_string(ports->control())), 2U) << "told twice";
}

TEST(Handshake, APortThatTheSystemRefusesIsShownToTheOwner) {
    std::ifstream first_ordinary("/proc/sys/net/ipv4/ip_unprivileged_port_start");
    int port = 0;
    if (first_ordinary >> port; port < 1024) GTEST_SKIP() << "every port is anybody's here";
    Agent::Setup setup{.arguments = {"--port-base", "0"}};
    if (::geteuid() == 0) setup.wrapper = {"setpriv", "--bounding-set=-net_bind_service"};
    const Agent agent(setup);
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: bind :3 failed: Permission denied"));
    EXPECT_TRUE(agent.screen().wait_for(
        "The system doesn't let the agent open port 3. Set PORT_BASE to 1024", kPatience));
}

}  // namespace
}  // namespace ox::test
