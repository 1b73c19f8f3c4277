#include "input/input_receiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <netinet/in.h>
#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace ox {
namespace {

using Key = std::array<uint8_t, 32>;
constexpr Key kKey{1, 2, 3};

/// One event as a device sees it.
struct Seen {
    int type;
    int code;
    int value;
    bool operator==(const Seen&) const = default;
    friend void PrintTo(const Seen& e, std::ostream* out) {
        *out << "{" << e.type << "," << e.code << "," << e.value << "}";
    }
};
constexpr Seen kSync{EV_SYN, SYN_REPORT, 0};

/// The three events that follow everything at the end: modifiers, buttons, sync.
const std::vector<Seen> kReleaseAll{{EV_KEY, 56, 0},  {EV_KEY, 100, 0}, {EV_KEY, 29, 0},
                                    {EV_KEY, 97, 0},  {EV_KEY, 42, 0},  {EV_KEY, 54, 0},
                                    {EV_KEY, 125, 0}, {EV_KEY, 126, 0}, {EV_KEY, 272, 0},
                                    {EV_KEY, 273, 0}, {EV_KEY, 274, 0}, kSync};

uint16_t free_udp_port() {
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length);
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

/// A receiver whose device is a pipe, and the launcher's end of the wire.
class InputReceiverTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GE(::sodium_init(), 0);
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        events_ = UniqueFd(ends[0]);
        receiver_.set_key(kKey.data(), kKey.size());
        port_ = free_udp_port();
        socket_ = UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(receiver_.start_with_device(port_, UniqueFd(ends[1])));
    }

    void send_bytes(const std::vector<uint8_t>& bytes) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port_);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::sendto(socket_.get(), bytes.data(), bytes.size(), 0,
                 reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }

    [[nodiscard]] static std::vector<uint8_t> seal(const InputPacket& packet,
                                                   const Key& key = kKey) {
        std::vector<uint8_t> datagram(kInputDatagramBytes);
        ::randombytes_buf(datagram.data(), kInputNonceBytes);
        std::array<uint8_t, sizeof packet> plain{};
        std::memcpy(plain.data(), &packet, sizeof packet);
        ::crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + kInputNonceBytes, nullptr,
                                                    plain.data(), plain.size(), nullptr, 0, nullptr,
                                                    datagram.data(), key.data());
        return datagram;
    }

    void send(InputKind kind, int data0 = 0, int data1 = 0, uint8_t buttons = 0) {
        InputPacket packet;
        packet.kind = static_cast<uint8_t>(kind);
        packet.seq = seq_++;
        packet.data0 = static_cast<int16_t>(data0);
        packet.data1 = static_cast<int16_t>(data1);
        packet.buttons = buttons;
        send_bytes(seal(packet));
    }

    /// A motion by `dx`: shows that everything sent before has been handled.
    void send_marker(int dx) { send(InputKind::MouseMotion, dx); }

    /// Reads events up to and including the sync of the marker.
    std::vector<Seen> events_until_marker(int dx) {
        std::vector<Seen> seen;
        bool marker = false;
        while (true) {
            const std::optional<Seen> event = next_event();
            if (!event) {
                ADD_FAILURE() << "no marker";
                return seen;
            }
            if (*event == Seen{EV_REL, REL_X, dx}) {
                marker = true;
            } else if (marker && *event == kSync) {
                return seen;
            } else {
                seen.push_back(*event);
            }
        }
    }

    std::optional<Seen> next_event() const {
        pollfd entry{.fd = events_.get(), .events = POLLIN, .revents = 0};
        if (::poll(&entry, 1, 5000) <= 0) return std::nullopt;
        input_event event{};
        if (::read(events_.get(), &event, sizeof event) != sizeof event) return std::nullopt;
        EXPECT_EQ(event.input_event_sec, 0);
        EXPECT_EQ(event.input_event_usec, 0);
        return Seen{event.type, event.code, event.value};
    }

    std::vector<Seen> rest_after_stop() {
        receiver_.stop();
        std::vector<Seen> seen;
        while (const auto event = next_event())
            seen.push_back(*event);
        return seen;
    }

    UniqueFd events_;  ///< outlives the receiver, which writes to the pipe until its end
    InputReceiver receiver_;
    UniqueFd socket_;
    uint16_t port_ = 0;
    uint16_t seq_ = 65530;  // wraps in every test
};

TEST_F(InputReceiverTest, EventsReachTheDeviceInOrderAndWhole) {
    send(InputKind::MouseMotion, -3, 7, 0b001);
    send(InputKind::MouseMotion, 0, 0, 0b001);
    send(InputKind::MouseButtons, 0, 0, 0b110);
    send(InputKind::MouseButtons, 0, 0, 0b110);
    send(InputKind::Wheel, 0, 240);
    send(InputKind::Wheel, 0, -119);
    send(InputKind::Wheel, 0, -32768);
    send(InputKind::KeyDown, 0x41, 30);
    send(InputKind::KeyUp, 0x41, 30);
    send(InputKind::KeyDown, 0x26, 72 | 0x0200);
    send(InputKind::KeyDown, 0xFF, 0);  // maps to nothing
    send_marker(100);
    const std::vector<Seen> expected{
        {EV_REL, REL_X, -3},
        {EV_REL, REL_Y, 7},
        {EV_KEY, 272, 1},
        kSync,  //
        kSync,  //
        {EV_KEY, 272, 0},
        {EV_KEY, 273, 1},
        {EV_KEY, 274, 1},
        kSync,  //
        {EV_REL, REL_WHEEL, 2},
        kSync,  //
        kSync,  //
        {EV_REL, REL_WHEEL, -273},
        kSync,  //
        {EV_KEY, 30, 1},
        kSync,
        {EV_KEY, 30, 0},
        kSync,  //
        {EV_KEY, 103, 1},
        kSync,  //
        // The marker's button state is none: the two held buttons go up with it.
    };
    std::vector<Seen> seen = events_until_marker(100);
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(std::vector<Seen>(seen.end() - 2, seen.end()),
              (std::vector<Seen>{{EV_KEY, 273, 0}, {EV_KEY, 274, 0}}));
    seen.resize(seen.size() - 2);
    EXPECT_EQ(seen, expected);
}

TEST_F(InputReceiverTest, WhatIsNotAFreshAuthenticPacketIsDropped) {
    InputPacket packet;
    packet.kind = static_cast<uint8_t>(InputKind::KeyDown);
    packet.data1 = 30;
    packet.seq = seq_++;
    const std::vector<uint8_t> good = seal(packet);

    std::vector<uint8_t> longer = good;
    longer.push_back(0);
    send_bytes(longer);
    send_bytes({good.begin(), good.end() - 1});
    send_bytes({0});
    for (const size_t at : {size_t{0}, size_t{20}, size_t{55}}) {
        std::vector<uint8_t> flipped = good;
        flipped[at] ^= 1U;
        send_bytes(flipped);
    }
    Key other = kKey;
    other[31] = 9;
    send_bytes(seal(packet, other));
    InputPacket wrong_version = packet;
    wrong_version.version = 2;
    send_bytes(seal(wrong_version));
    InputPacket unknown = packet;
    unknown.kind = 9;
    unknown.seq = seq_++;
    send_bytes(seal(unknown));
    send_marker(100);
    EXPECT_EQ(events_until_marker(100), std::vector<Seen>{});

    send_bytes(good);
    send_bytes(good);          // a replay
    send_bytes(seal(packet));  // the same sequence under another nonce
    send_marker(101);
    EXPECT_EQ(events_until_marker(101), (std::vector<Seen>{{EV_KEY, 30, 1}, kSync}));
    EXPECT_EQ(receiver_.received(), 14U);
}

TEST_F(InputReceiverTest, NothingStaysPressedAfterTheEnd) {
    const test::LogCapture log;
    send(InputKind::KeyDown, 0, 30);
    send(InputKind::KeyDown, 0, 17);
    send(InputKind::KeyDown, 0, 17);
    send(InputKind::KeyDown, 0, 31);
    send(InputKind::KeyUp, 0, 31);
    send_marker(100);
    events_until_marker(100);
    std::vector<Seen> expected{{EV_KEY, 17, 0}, {EV_KEY, 30, 0}};
    expected.insert(expected.end(), kReleaseAll.begin(), kReleaseAll.end());
    EXPECT_EQ(rest_after_stop(), expected);
    EXPECT_EQ(log.count("INFO", "InputReceiver: released 2 tracked pressed keys"), 1);
    EXPECT_EQ(log.count("INFO", "InputReceiver: stopped (6 received, 6 applied)"), 1);
}

TEST_F(InputReceiverTest, FeedbackGoesToTheCallbackAndNotToTheDevice) {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<InputPacket> packets;
    receiver_.set_feedback_callback([&](const InputPacket& packet) {
        const std::lock_guard lock(mutex);
        packets.push_back(packet);
        arrived.notify_one();
    });
    send(InputKind::KeyframeRequest);
    send(InputKind::RfiRequest, 5);
    send(InputKind::MediaFeedback, 250, 30);
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        arrived.wait_for(lock, std::chrono::seconds(5), [&] { return packets.size() == 3; }));
    EXPECT_EQ(packets[1].kind, 7);
    EXPECT_EQ(packets[2].data0, 250);
    lock.unlock();
    EXPECT_EQ(rest_after_stop(), kReleaseAll);
    EXPECT_EQ(receiver_.feedback(), 3U);
    EXPECT_EQ(receiver_.applied(), 0U);
}

TEST_F(InputReceiverTest, ARestartCountsAnewAndStopIsPrompt) {
    send_marker(100);
    events_until_marker(100);
    const auto before = std::chrono::steady_clock::now();
    receiver_.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    events_ = UniqueFd(ends[0]);
    ASSERT_TRUE(receiver_.start_with_device(port_, UniqueFd(ends[1])));
    seq_ = 65530;  // as a launcher that came back
    send_marker(101);
    EXPECT_EQ(events_until_marker(101), std::vector<Seen>{});
}

TEST(InputReceiverAlone, KeysAndPortsThatCannotBeTaken) {
    const test::LogCapture log;
    InputReceiver receiver;
    const std::array<uint8_t, 33> bytes{};
    EXPECT_FALSE(receiver.set_key(bytes.data(), 31));
    EXPECT_FALSE(receiver.set_key(bytes.data(), 33));
    EXPECT_FALSE(receiver.set_key(nullptr, 32));
    EXPECT_EQ(log.count("ERROR", "InputReceiver: invalid key size 31"), 1);

    // A socket without address reuse holds its port for itself.
    const UniqueFd holder(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(holder.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    ::getsockname(holder.get(), reinterpret_cast<sockaddr*>(&address), &length);
    const uint16_t port = ntohs(address.sin_port);
    EXPECT_FALSE(receiver.start(port));
    EXPECT_EQ(log.count("ERROR", "InputReceiver: bind :" + std::to_string(port) +
                                     " failed: Address already in use"),
              1);
}

}  // namespace
}  // namespace ox
