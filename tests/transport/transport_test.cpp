// Pacing and the sender.

#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "transport/token_bucket.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

// At 1,000,000 bytes/s a byte is a microsecond and the bucket holds 16,000.
TEST(TokenBucket, HoldsSixteenMillisecondsAndSleepsBetweenFiftyMicrosecondsAndOneMillisecond) {
    const SteadyClock::time_point start{std::chrono::hours(100)};
    TokenBucket bucket(1'000'000, start);
    const std::tuple<int64_t, size_t, int64_t, bool> steps[] = {
        {0, 16'000, 0, false},        // starts full
        {950, 1'000, 0, true},        // 50 short: not worth a sleep; bucket empty
        {1'899, 1'000, 51, false},    // 51 short
        {1'899, 1'000, 1000, false},  // waits for exactly its tokens
        {1'899, 1'001, 1000, true},   // capped, one byte short
        {1'899, 60'000, 1000, true},
        {2'899, 1'000, 0, false},  // never negative: 1 ms brings 1,000 bytes
        {2'899, 800, 800, false},
        {3'699, 800, 0, false},          // the slept time counts twice
        {60'000'000, 16'000, 0, false},  // a minute fills it once
        {60'000'000, 51, 51, false},
    };
    for (const auto& [at_us, length, sleep_us, overrun] : steps) {
        const auto decision = bucket.take(length, start + std::chrono::microseconds(at_us));
        EXPECT_EQ(decision.sleep.count(), sleep_us) << at_us << ", " << length;
        EXPECT_EQ(decision.overrun, overrun) << at_us << ", " << length;
    }
}

using test::eventually;

/// A launcher's socket, at 127.0.0.`host`.
struct Peer {
    explicit Peer(uint32_t host = 1)
        : fd(test::bound_socket(SOCK_DGRAM, 0, host)), ip("127.0.0." + std::to_string(host)) {}
    void send(const std::string& bytes, uint16_t to) const {
        const sockaddr_in address = test::loopback(to);
        ::sendto(fd.get(), bytes.data(), bytes.size(), 0,
                 reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    [[nodiscard]] std::string receive(int timeout_ms = 10'000) const {
        pollfd readable{.fd = fd.get(), .events = POLLIN, .revents = 0};
        if (::poll(&readable, 1, timeout_ms) != 1) return "nothing";
        std::array<char, 2048> bytes{};
        const ssize_t length = ::recv(fd.get(), bytes.data(), bytes.size(), 0);
        return {bytes.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

    UniqueFd fd;
    std::string ip;
    uint16_t port = test::port_of(fd);
    std::string name = ip + ":" + std::to_string(port);
};

bool send_text(UdpSender& sender, const std::string& text) {
    return sender.send_raw(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

/// An open sender towards `launcher`.
struct UdpSenderTest : testing::Test {
    void SetUp() override { ASSERT_TRUE(sender.open("127.0.0.1", launcher.port, port)); }
    [[nodiscard]] int locked_on(const Peer& peer) const {
        return log.times("UdpSender: hole-punch probe received from " + peer.name + " — endpoint");
    }
    [[nodiscard]] int listeners_started() const {
        return log.times("UdpSender: waiting for hole-punch probe on port " + std::to_string(port));
    }

    /// Waits until the listener has refused a probe of `bytes` from `peer`, and thus processed all
    /// earlier ones.
    [[nodiscard]] bool refuses(const Peer& peer, const std::string& bytes = "OXP1") const {
        const std::string line = std::to_string(bytes.size()) + "B) from " + peer.name;
        const auto refused = [&] { return log.times("ignoring invalid probe (" + line + "\n"); };
        const int before = refused();
        peer.send(bytes, port);
        return eventually([&] { return refused() == before + 1; });
    }

    const test::LogCapture log;
    const test::PortBlock ports;
    const uint16_t port = ports.base();
    const Peer launcher, other;
    UdpSender sender;
};

TEST_F(UdpSenderTest, RefusesAnOversizedPacket) {
    OutgoingPacket packet;
    packet.payload.assign(std::vector<uint8_t>(1242, 0xee));
    EXPECT_TRUE(sender.send_packet(packet));
    packet.payload.resize(1243);
    EXPECT_FALSE(sender.send_packet(packet));
    sender.close();
    packet.payload.resize(0);
    EXPECT_FALSE(sender.send_packet(packet));
    EXPECT_EQ(log.count("INFO", "UdpSender: closed (pkts=1 bytes=1264 errs=0)"), 1);
}

TEST_F(UdpSenderTest, AReservedPortReceivesAProbeBeforeOpen) {
    sender.close();
    sender.reserve(port);
    other.send("OXP1", port);
    ASSERT_TRUE(sender.open("127.0.0.1", launcher.port, port));
    sender.start_probe_listener();
    EXPECT_TRUE(sender.wait_for_probe(10, {}));
    EXPECT_EQ(locked_on(other), 1);
}

TEST_F(UdpSenderTest, TokenProbeMovesTheDestination) {
    const std::string token = "TOKEN678 and what follows";
    sender.set_probe_token(reinterpret_cast<const uint8_t*>(token.data()), token.size());
    sender.start_probe_listener();
    sender.start_probe_listener();
    EXPECT_EQ(listeners_started(), 1);
    for (const char* wrong : {"OXP1", "OXP1TOKEN67", "OXP1TOKEN67x", "OXP1TOKEN678x"})
        EXPECT_TRUE(refuses(other, wrong));
    EXPECT_TRUE(send_text(sender, "before"));
    EXPECT_EQ(launcher.receive(), "before");

    other.send("OXP1TOKEN678", port);
    EXPECT_TRUE(sender.wait_for_probe(-1, [] { return false; }));
    EXPECT_EQ(locked_on(other), 1);
    launcher.send("OXP1TOKEN678", port);  // too late: the listener has ended
    sender.start_probe_listener();
    EXPECT_EQ(listeners_started(), 1);
    EXPECT_TRUE(send_text(sender, "after"));
    EXPECT_EQ(other.receive(), "after");
}

TEST_F(UdpSenderTest, OnlyAReturningLauncherMovesTheStreamOncePerReturn) {
    const auto goes_to = [this](const Peer& peer) {
        EXPECT_TRUE(send_text(sender, "picture"));
        return peer.receive() == "picture";
    };
    sender.start_probe_listener();
    // Back at another address: a destination that no probe has set follows at once.
    const Peer back(2), rebound(2), reported(3);
    sender.expect_return(back.ip, back.ip, back.port);
    EXPECT_TRUE(goes_to(back));
    EXPECT_TRUE(refuses(launcher) && refuses(other, std::string(1, '\0')));
    EXPECT_TRUE(goes_to(back));
    EXPECT_FALSE(sender.take_moved());
    rebound.send("OXP1", port);
    EXPECT_TRUE(sender.wait_for_probe(10, {}));
    EXPECT_TRUE(sender.take_moved());
    EXPECT_TRUE(goes_to(rebound));

    // Its second return, on another port of the same address. Probes queued before it do not count.
    for (const Peer* early : {&rebound, &rebound, &other, &reported})
        early->send("OXP1", port);
    sender.expect_return(back.ip, back.ip, back.port);
    EXPECT_TRUE(refuses(other));
    EXPECT_TRUE(goes_to(rebound));
    EXPECT_FALSE(sender.take_moved());
    back.send("OXP1", port);
    EXPECT_TRUE(eventually([&] { return locked_on(back) == 1; }));
    EXPECT_TRUE(sender.take_moved());
    EXPECT_TRUE(goes_to(back));

    // The third return: the control connection and the media have different addresses.
    sender.expect_return(launcher.ip, reported.ip, reported.port);
    EXPECT_TRUE(refuses(rebound) && refuses(launcher, std::string(1, '\0')));
    EXPECT_TRUE(goes_to(back));
    reported.send(std::string(1, '\0'), port);
    EXPECT_TRUE(eventually([&] { return sender.take_moved(); }));
    EXPECT_TRUE(goes_to(reported));

    // A probe from the present destination counts, too.
    sender.expect_return(launcher.ip, reported.ip, reported.port);
    reported.send("OXP1", port);
    EXPECT_TRUE(eventually([&] { return locked_on(reported) == 1; }));
    EXPECT_FALSE(sender.take_moved());
}

TEST_F(UdpSenderTest, WaitEndsWithoutAProbe) {
    sender.start_probe_listener();
    EXPECT_FALSE(sender.wait_for_probe(0, {}));
    EXPECT_EQ(log.count("INFO", "UdpSender: probe wait skipped — using TCP-derived endpoint"), 1);
    int asked = 0;
    EXPECT_FALSE(sender.wait_for_probe(-1, [&] { return ++asked == 3; }));
    EXPECT_EQ(log.count("WARN", "UdpSender: probe wait aborted (session ending)"), 1);
    {
        const std::jthread waiter([&] { EXPECT_FALSE(sender.wait_for_probe(-1, {})); });
        sender.close();
    }
    // The next session on the same object.
    ASSERT_TRUE(sender.open("127.0.0.1", launcher.port, port));
    sender.start_probe_listener();
    other.send("OXP1", port);
    EXPECT_TRUE(sender.wait_for_probe(10, {}));
}

}  // namespace
}  // namespace ox
