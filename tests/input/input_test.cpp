// Key mapping, replay protection, the virtual device and the receiver.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <poll.h>
#include <sodium.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "input/input_receiver.h"
#include "input/key_map.h"
#include "input/replay_window.h"
#include "input/uinput_device.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/sockets.h"

namespace ox {
namespace {

// Linux codes are written as numbers here: they are the kernel's ABI and what a device reports.

TEST(KeyMap, ScanCodesGoBeforeVirtualKeys) {
    EXPECT_EQ(linux_key_code(0x1B, 30, true), 1) << "no extended entry: the virtual key decides";
    EXPECT_EQ(linux_key_code(0x41, 16, false), 16);
    EXPECT_EQ(linux_key_code(0x13, 69, false), 119);
    EXPECT_EQ(linux_key_code(0x90, 69, false), 69);
    // Virtual keys without a scan code.
    const std::pair<uint16_t, int> samples[] = {
        {0x08, 14}, {0x0D, 28}, {0x13, 119}, {0x1B, 1},   {0x20, 57}, {0x25, 105}, {0x28, 108},
        {0x30, 11}, {0x31, 2},  {0x41, 30},  {0x5A, 55},  {0x60, 82}, {0x6C, 0},   {0x6F, 98},
        {0x70, 59}, {0x7B, 70}, {0x7C, 183}, {0x87, 194}, {0x90, 69}, {0xA0, 42},  {0xA5, 100},
        {0xBA, 39}, {0xDE, 40}, {0xE2, 86},  {0xE3, 0},   {0x141, 0},
    };
    for (const auto& [vk, code] : samples)
        EXPECT_EQ(linux_key_code(vk, 0, false), code) << vk;
}

TEST(ReplayWindow, AcceptsEachSequenceOnceWithin64OfTheNewest) {
    using Run = std::vector<std::pair<uint16_t, bool>>;  // sequences, and whether each is accepted
    const Run runs[] = {
        // Wrap, and second copies of either side of it.
        {{65535, true}, {0, true}, {65535, false}, {0, false}, {65534, true}},
        // The far end of the window: 63 behind is in, 64 behind is out.
        {{1000, true}, {937, true}, {936, false}, {937, false}, {1000, false}},
        // A step of 63 keeps the old newest, one of 64 forgets it.
        {{10, true}, {73, true}, {10, false}, {11, true}},
        {{10, true}, {74, true}, {10, false}, {11, true}},
        // Out of order, each once.
        {{5, true}, {9, true}, {7, true}, {6, true}, {7, false}, {8, true}, {5, false}},
        // Half the number space ahead counts as behind.
        {{0, true}, {32767, true}, {65535, false}, {0, false}},
    };
    ReplayWindow window;
    for (const Run& run : runs) {
        window.reset();
        for (const auto& [sequence, accepted] : run)
            EXPECT_EQ(window.accept_sequence(sequence), accepted) << &run - runs << " " << sequence;
    }
}

/// The event node of the virtual device, or an empty path.
std::string find_event_node() {
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/input")) {
        std::string name;
        std::getline(std::ifstream(entry.path() / "device/name"), name);
        const std::string node = entry.path().filename();
        if (name == "Orvex Agent" && node.starts_with("event")) return "/dev/input/" + node;
    }
    return {};
}

TEST(UinputDevice, TheKernelMakesAKeyboardAndPointerOfIt) {
    if (::access("/dev/uinput", W_OK) != 0) GTEST_SKIP() << "no writable /dev/uinput here";
    UinputDevice device;
    ASSERT_TRUE(device.uinput_init());
    const std::string node = find_event_node();
    if (node.empty()) GTEST_SKIP() << "the event node of the device cannot be read here";
    const UniqueFd fd(::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    device.uinput_key(KEY_A, true);
    device.uinput_sync();
    input_event event{};
    ASSERT_EQ(::read(fd.get(), &event, sizeof event), static_cast<ssize_t>(sizeof event));
    EXPECT_EQ(std::pair(event.code, event.value), std::pair(uint16_t{KEY_A}, 1));
    device.destroy();
    EXPECT_EQ(find_event_node(), "");
}

using Key = std::array<uint8_t, 32>;
constexpr Key kKey{1, 2, 3};

/// The releases of modifiers and buttons that end every release.
const std::string kReleaseAll =
    "1:56=0 1:100=0 1:29=0 1:97=0 1:42=0 1:54=0 1:125=0 1:126=0 1:272=0 1:273=0 1:274=0 ";

/// A receiver whose device is a pipe, and the launcher's socket.
struct InputReceiverTest : testing::Test {
    void SetUp() override {
        ASSERT_GE(::sodium_init(), 0);
        receiver_.set_key(kKey.data(), kKey.size());
        start();
    }
    void start() {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        events_ = UniqueFd(ends[0]);
        ASSERT_TRUE(receiver_.start_with_device(port_, UniqueFd(ends[1])));
    }

    void send_bytes(const std::vector<uint8_t>& bytes) const {
        const sockaddr_in to = test::loopback(port_);
        ::sendto(socket_.get(), bytes.data(), bytes.size(), 0,
                 reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    static std::vector<uint8_t> seal(const InputPacket& packet, const Key& key = kKey) {
        std::vector<uint8_t> datagram(kInputDatagramBytes);
        ::randombytes_buf(datagram.data(), kInputNonceBytes);
        ::crypto_aead_chacha20poly1305_ietf_encrypt(
            datagram.data() + kInputNonceBytes, nullptr, reinterpret_cast<const uint8_t*>(&packet),
            sizeof packet, nullptr, 0, nullptr, datagram.data(), key.data());
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

    /// The device's events since the last call, each as "type:code=value " and a sync as "| ".
    /// Sends a motion as a marker, which is left out.
    std::string events() {
        const std::string marker = "2:0=100 ";
        send(InputKind::MouseMotion, 100);
        std::string seen = events_until(marker);
        const size_t at = seen.find(marker);
        return at == std::string::npos ? "no motion after " + seen : seen.erase(at, marker.size());
    }
    /// The same up to the sync after event `last`, or all of them.
    std::string events_until(const std::string& last) {
        std::string seen;
        pollfd readable{.fd = events_.get(), .events = POLLIN, .revents = 0};
        input_event event{};
        while (::poll(&readable, 1, 10'000) == 1 &&
               ::read(events_.get(), &event, sizeof event) == sizeof event) {
            EXPECT_EQ(event.input_event_sec + event.input_event_usec, 0);
            if (event.type != EV_SYN) {
                seen += std::to_string(event.type) + ":" + std::to_string(event.code) + "=" +
                        std::to_string(event.value) + " ";
            } else if (seen.find(last) != std::string::npos) {
                return seen;
            } else {
                seen += "| ";
            }
        }
        return seen;
    }

    UniqueFd events_;  ///< outlives the receiver, which writes to the pipe
    InputReceiver receiver_;
    UniqueFd socket_ = test::bound_socket(SOCK_DGRAM, 0);
    const test::PortBlock ports_;
    const uint16_t port_ = ports_.base();
    uint16_t seq_ = 65530;  // wraps in every test
};

TEST_F(InputReceiverTest, EventsReachTheDeviceInOrderAndWhole) {
    using enum InputKind;
    send(MouseMotion, -3, 7, 0b001);
    send(MouseMotion, 0, 0, 0b001);
    for (int twice = 0; twice < 2; ++twice)
        send(MouseButtons, 0, 0, 0b110);
    for (const int turn : {240, -119, -32768})
        send(Wheel, 0, turn);
    for (const InputKind kind : {KeyDown, KeyUp})
        send(kind, 0x41, 30);
    send(KeyDown, 0x26, 72 | 0x0200);
    send(KeyDown, 0xFF, 0);  // maps to nothing
    // The marker's button state is none: the two held buttons go up with it.
    EXPECT_EQ(events(),
              "2:0=-3 2:1=7 1:272=1 | | 1:272=0 1:273=1 1:274=1 | "
              "2:8=2 | | 2:8=-273 | 1:30=1 | 1:30=0 | 1:103=1 | 1:273=0 1:274=0 ");
}

TEST_F(InputReceiverTest, ReplayedOrForgedDatagramsAreDropped) {
    InputPacket packet;
    packet.kind = static_cast<uint8_t>(InputKind::KeyDown);
    packet.data1 = 30;
    packet.seq = seq_++;
    const std::vector<uint8_t> good = seal(packet);

    for (const size_t size : {good.size() + 1, good.size() - 1, size_t{1}}) {
        std::vector<uint8_t> resized = good;
        resized.resize(size);
        send_bytes(resized);
    }
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
    EXPECT_EQ(events(), "");

    send_bytes(good);
    send_bytes(good);          // a replay
    send_bytes(seal(packet));  // the same sequence under another nonce
    EXPECT_EQ(events(), "1:30=1 | ");
    EXPECT_EQ(receiver_.received(), 14U);
}

TEST_F(InputReceiverTest, PressedKeysAreReleasedOnRequestAndAtTheEnd) {
    const test::LogCapture log;
    send(InputKind::KeyDown, 0, 17);
    events();
    receiver_.release_pressed();
    EXPECT_EQ(events_until("1:274=0 "), "1:17=0 " + kReleaseAll);
    for (const int scan : {18, 30, 30, 31})  // the launcher is back
        send(InputKind::KeyDown, 0, scan);
    send(InputKind::KeyUp, 0, 31);
    events();
    receiver_.stop();
    EXPECT_EQ(events_until("the end"), "1:18=0 1:30=0 " + kReleaseAll + "| ");
    EXPECT_EQ(log.count("INFO", "InputReceiver: released 2 tracked pressed keys"), 1);
    EXPECT_EQ(log.count("INFO", "InputReceiver: stopped (8 received, 8 applied)"), 1);
}

TEST_F(InputReceiverTest, ABusyPortIsReported) {
    receiver_.stop();
    UniqueFd occupier = test::bound_socket(SOCK_DGRAM, port_);
    EXPECT_FALSE(receiver_.start_with_device(port_, UniqueFd()));
    EXPECT_EQ(receiver_.bind_error(), EADDRINUSE);
    occupier.reset();
    EXPECT_TRUE(receiver_.start_with_device(port_, UniqueFd()));
    EXPECT_EQ(receiver_.bind_error(), 0);
}

TEST_F(InputReceiverTest, WithheldInputIsDroppedAndPressedKeysAreReleased) {
    send(InputKind::KeyDown, 0, 17);
    events();
    receiver_.withhold(true);
    send(InputKind::KeyDown, 0, 18);
    send(InputKind::MouseMotion, 5, 5, 0b001);
    ASSERT_TRUE(test::eventually([&] { return receiver_.received() == 4; }));
    receiver_.withhold(true);
    receiver_.stop();  // withheld across a restart
    EXPECT_EQ(receiver_.applied(), 2U);
    EXPECT_THAT(events_until("the end"), testing::HasSubstr("1:17=0 " + kReleaseAll));
    start();
    send(InputKind::KeyDown, 0, 19);
    ASSERT_TRUE(test::eventually([&] { return receiver_.received() == 5; }));
    receiver_.withhold(false);
    EXPECT_EQ(events(), "");
}

}  // namespace
}  // namespace ox
