#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <string_view>

#include "control/tcp_control_server.h"
#include "support/log_capture.h"
#include "support/port_block.h"
#include "support/tcp_client.h"

namespace ox::test {

inline constexpr std::chrono::seconds kPatience{20};  // for what must happen, on a busy machine
inline constexpr std::string_view kToken = "player-one-token";
inline constexpr std::string_view kGoodAuth = R"({"type":"auth","token":"player-one-token"})"
                                              "\n";

/// A control server on a free port that knows the SHA-256 of `kToken`.
class ControlServerTest : public testing::Test {
  protected:
    ControlServerTest() {
        server_.expected_token_sha256 =
            "04E903e6f4635ae514d0c658e95b50213c3d276126584d4fe555a67c0d9444cb";
    }
    ~ControlServerTest() override { abort_ = true; }

    [[nodiscard]] uint16_t port() const { return ports_.control(); }
    [[nodiscard]] TcpClient connect() const { return {port(), kPatience}; }

    std::future<bool> handshake() {
        return std::async(std::launch::async, [this] {
            return server_.accept_and_handshake(
                port(), [this] { return abort_.load(); }, 0);
        });
    }

    /// The server's half and a launcher's, done with each other; the launcher has its answer
    /// unread.
    TcpClient connected_launcher() {
        auto result = handshake();
        TcpClient launcher = connect();
        launcher.send(kGoodAuth);
        EXPECT_TRUE(result.get()) << server_.last_error << "\n" << log_.text();
        return launcher;
    }

    LogCapture log_{LogLevel::TRACE};
    PortBlock ports_;
    std::atomic<bool> abort_{false};
    TcpControlServer server_;
};

}  // namespace ox::test
