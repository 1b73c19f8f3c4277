#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "saas/connector_fixture.h"
#include "saas/raw_backend.h"

namespace ox {
namespace {

using std::chrono::microseconds;
using test::RawPeer;

size_t entries(const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

class SaasChurnTest : public test::ConnectorTest {
  protected:
    /// Accepts and drops `count` connections at different points of their life.
    void churn(int count) {
        for (int i = 0; i < count; ++i) {
            RawPeer peer = backend_.accept();
            if (i % 4 == 0) continue;  // at once
            peer.accept_upgrade();
            if (i % 4 == 1) peer.read_frame();
            if (i % 4 == 2) peer.send("\x81\x20half");
            if (i % 2 == 1) peer.reset();
        }
    }

    test::RawBackend backend_;
};

TEST_F(SaasChurnTest, AThousandLostConnectionsLeaveNothingBehind) {
    log_level() = static_cast<int32_t>(LogLevel::ERROR);  // the capture grows, too
    SaasConnector connector(config(backend_.port()), quick());
    connector.send_session_ended("s1", "disconnect", 1);
    connector.start();
    churn(100);
    const size_t threads = entries("/proc/self/task");
    const size_t descriptors = entries("/proc/self/fd");
    const size_t memory = ::mallinfo2().uordblks;
    churn(1000);
    // The connection that is just being made or cleared away has one descriptor.
    EXPECT_LE(entries("/proc/self/fd"), descriptors + 1);
    EXPECT_EQ(entries("/proc/self/task"), threads);
    EXPECT_LT(::mallinfo2().uordblks, memory + 64 * 1024);
}

TEST_F(SaasChurnTest, StopsCleanlyAtRandomMoments) {
    constexpr unsigned kSeed = 7;
    std::mt19937 random(kSeed);
    std::uniform_int_distribution<int> moment(0, 3000);
    std::jthread flapping([this](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            RawPeer peer = backend_.accept();
            if (peer.accept_upgrade().empty()) continue;
            peer.send_text(R"({"type":"ping"})");
            peer.send_text(R"({"type":"terminate_session"})");
            peer.read_frame();
        }
    });
    for (int i = 0; i < 150; ++i) {
        SaasConnector connector(config(backend_.port()), quick());
        connector.set_terminate_session_callback([&](const auto& id, const auto& reason) {
            connector.send_session_ended(id, reason, 1);
        });
        connector.start();
        std::jthread sender([&] {
            for (int n = 0; n < 20; ++n)
                connector.send_session_stats("s", 1, 2, 3, 4, 5);
        });
        std::this_thread::sleep_for(microseconds(moment(random)));
        connector.stop();
    }
    flapping.request_stop();
    SaasConnector last(config(backend_.port()), quick());  // wakes the flapping backend's accept
    last.start();
    flapping.join();
}

}  // namespace
}  // namespace ox
