#pragma once

#include <gtest/gtest.h>
#include <sodium.h>

#include <mutex>
#include <string>

#include "saas/saas_connector.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "tui/board.h"

namespace ox::test {

inline constexpr const char* kAgentToken = "agent-secret-token";

/// A clean board, and the program's configuration and timing with waits that a test can afford.
class ConnectorTest : public ::testing::Test {
  protected:
    ConnectorTest() {
        EXPECT_GE(sodium_init(), 0);
        const std::lock_guard lock(tui::board().mutex);
        static const tui::Snapshot kFresh;
        tui::board().state = kFresh;
    }

    static SaasConfig config(uint16_t port, std::string host = "127.0.0.1") {
        SaasConfig config;
        config.host = std::move(host);
        config.port = port;
        config.agent_token = kAgentToken;
        config.system_info.gpu_model = "gpu";
        config.port_base = 47998;
        return config;
    }

    static ConnectorTiming quick() {
        using std::chrono::milliseconds;
        ConnectorTiming timing;
        timing.backoff = {
            .first = milliseconds(1), .longest = milliseconds(8), .replaced = milliseconds(20)};
        return timing;
    }

    static bool alert(tui::Alert which) {
        return tui::board().snapshot().alerts.at(static_cast<size_t>(which));
    }
    static tui::LinkState link() { return tui::board().snapshot().link; }

    LogCapture log_;
};

}  // namespace ox::test
