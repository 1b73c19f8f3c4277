#include <filesystem>
#include <random>
#include <thread>

#include "saas/connector_fixture.h"
#include "saas/raw_backend.h"

namespace ox {
namespace {

using test::RawPeer;

size_t entries(const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

class SaasChurnTest : public test::ConnectorTest {
  protected:
    test::RawBackend backend_;
};

TEST_F(SaasChurnTest, AThousandLostConnectionsLeaveNothingBehind) {
    SaasConnector connector(config(backend_.port()), quick());
    connector.start();
    size_t threads = 0;
    size_t descriptors = 0;
    for (int i = 0; i < 1000; ++i) {  // lost at different points of their life
        if (i == 100) {
            threads = entries("/proc/self/task");
            descriptors = entries("/proc/self/fd");
        }
        RawPeer peer = backend_.accept();
        if (i % 4 == 0) continue;  // at once
        peer.accept_upgrade();
        if (i % 4 == 1) peer.read_frame();
        if (i % 4 == 2) peer.send("\x81\x20half");
        if (i % 2 == 1) peer.reset();
    }
    // The connection that is just being made or cleared away has one descriptor.
    EXPECT_LE(entries("/proc/self/fd"), descriptors + 1);
    EXPECT_EQ(entries("/proc/self/task"), threads);
}

TEST_F(SaasChurnTest, StopsCleanlyAtRandomMoments) {
    std::mt19937 random(7);  // NOLINT: the same moments in each run
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
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        connector.stop();
    }
    flapping.request_stop();
    SaasConnector last(config(backend_.port()), quick());  // wakes the flapping backend's accept
    last.start();
    flapping.join();
}

}  // namespace
}  // namespace ox
