// What the control channel leaves behind in memory: every block that the server's thread gives back
// is searched for secrets.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "control/tcp_control_server.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/tcp_client.h"

namespace {

// Master key 00 01 .. 1f, and the keys that follow from it, as bytes and as they are sent.
constexpr std::string_view kSecrets[] = {
    {"\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16},
    {"\xb0\x99\x16\x55\x66\x35\xca\x25\xea\x0a\x6f\x21\xd7\x47\x43\xe2", 16},
    {"\x32\xdc\x3f\x7d\xbc\x57\xc6\x88\x9b\x26\x54\x18\xb8\x0d\x1f\x19", 16},
    {"\x4e\x80\x4d\xc5\xca\xba\xda\x93\x66\x91\x56\x02\x06\x66\xf3\x63", 16},
    "sJkWVWY1yiXqCm8h10dD4oiu",
    "Mtw/fbxXxoibJlQYuA0fGRXW",
    "ToBNxcq62pNmkVYCBmbzY9bV",
};

thread_local bool watching = false;
thread_local int leaks = 0;

void search(void* memory) {
    if (!watching || memory == nullptr) return;
    const std::string_view block(static_cast<const char*>(memory), ::malloc_usable_size(memory));
    for (const auto secret : kSecrets) {
        if (block.find(secret) != std::string_view::npos) ++leaks;
    }
}

}  // namespace

void* operator new(size_t size) {
    // Zeroed, so that nothing of a block's former life is taken for its owner's.
    if (void* memory = std::calloc(1, size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    search(memory);
    std::free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
    ::operator delete(memory);
}

namespace ox::test {
namespace {

TEST(Secrets, NoneIsLeftInMemoryThatWasGivenBack) {
    const LogCapture log(LogLevel::TRACE);
    const PortBlock ports;
    std::jthread launcher([port = ports.control()] {
        TcpClient client(port, std::chrono::seconds(20));
        client.send("{\"token\":\"x\",\"type\":\"auth\"}\n");
        client.closed_within(std::chrono::seconds(20));
    });
    {
        TcpControlServer server;
        server.expected_token_sha256 =
            "2d711642b726b04401627ca9fbac32f5c8530fb1903cc4db02258717921a4881";
        server.master_key.resize(32);
        std::iota(server.master_key.begin(), server.master_key.end(), uint8_t{0});
        watching = true;
        ASSERT_TRUE(server.accept_and_handshake(ports.control(), {}, 0)) << log.text();
        EXPECT_EQ(leaks, 0) << "during the handshake";

        leaks = 0;
        { const std::string unwiped(to_base64(server.keys.video_key).text()); }
        EXPECT_EQ(leaks, 1) << "the search itself";
        leaks = 0;
    }
    watching = false;
    EXPECT_EQ(leaks, 0) << "at the end";
    for (const auto secret : kSecrets)
        EXPECT_EQ(log.times(secret), 0);
}

TEST(Secrets, ASecretLeavesNothingWhereItWas) {
    ASSERT_GE(::sodium_init(), 0);
    const std::string_view master = kSecrets[0];
    watching = true;
    leaks = 0;
    {
        Secret secret(master);
        for (int i = 0; i < 100; ++i)
            secret.append(master);  // grows
        Secret moved(std::move(secret));
        secret = moved.copy();  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(secret, moved);
        secret = Secret(master);
        moved.resize(5);
        moved.resize(32);
        EXPECT_EQ(moved.text(), std::string(master.substr(0, 5)) + std::string(27, '\0'));
        std::optional<Secret> held(std::move(moved));
        held = std::nullopt;
    }
    watching = false;
    EXPECT_EQ(leaks, 0);
}

}  // namespace
}  // namespace ox::test
