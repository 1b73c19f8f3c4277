#include <thread>

#include "control/control_server_fixture.h"

namespace ox::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

class DeadlineTest : public ControlServerTest {};

TEST_F(DeadlineTest, AnAuthLineThatDripsInIsGivenFifteenSecondsInAll) {
    auto result = handshake();
    TcpClient launcher = connect();
    const auto connected = Clock::now();
    for (size_t at = 0;
         result.wait_for(std::chrono::milliseconds(400)) != std::future_status::ready; ++at) {
        ASSERT_LT(at, 60u) << "still waiting";
        launcher.send(" ");
    }
    EXPECT_FALSE(result.get());
    EXPECT_GE(Clock::now() - connected, std::chrono::milliseconds(14'900));
    EXPECT_LT(Clock::now() - connected, seconds(18));
    EXPECT_EQ(server_.last_error, "HANDSHAKE_TIMEOUT");
    EXPECT_EQ(log_.count("ERROR", "TcpControlServer: auth read timed out"), 1);
}

TEST_F(DeadlineTest, ALauncherThatDoesNotReadIsGivenUpAfterFiveSeconds) {
    TcpClient launcher = connected_launcher();
    server_.start_async_read();
    auto started = Clock::now();
    while (server_.send_line(std::string(100'000, 'x')))
        started = Clock::now();
    EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(4'900));
    EXPECT_LT(Clock::now() - started, seconds(7));
    while (server_.is_connected()) {
        ASSERT_LT(Clock::now() - started, seconds(20)) << "half a line was sent";
        std::this_thread::yield();
    }
}

}  // namespace
}  // namespace ox::test
