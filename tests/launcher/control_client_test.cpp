#include "launcher/control_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "support/port_block.h"

namespace ox::launcher {
namespace {

using std::chrono::milliseconds;

const std::string kKeyText = std::string(42, 'A') + "8=";  // 32 bytes
std::string session_ready(const std::string& video_key) {
    return R"({"audio_key":")" + kKeyText + R"(","caps":0,"input_key":")" + kKeyText +
           R"(","type":"session_ready","video_key":")" + video_key + "\"}\n";
}

/// Cuts off the first `resets` clients, as a listener does that closes with clients in its queue,
/// then reads the next one's auth line and answers it. Returns that connection.
UniqueFd serve(int listener, int resets, const std::string& answer) {
    for (; resets > 0; --resets) {
        const UniqueFd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        const linger at_once{.l_onoff = 1, .l_linger = 0};
        ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    UniqueFd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    char auth[512];
    EXPECT_GT(::recv(client.get(), auth, sizeof auth, 0), 0);
    ::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    return client;
}

TEST(ControlClient, UnderstandsEveryAnswer) {
    const std::string good = session_ready(kKeyText);
    const struct {
        const char* what;
        std::string answer;
        ConnectResult result;
        bool closes = false;
        int resets = 0;
    } cases[] = {
        {"keys", good, ConnectResult::Ready},
        {"cut off in the queue, then served", good, ConnectResult::Ready, false, 1},
        {"closed", "", ConnectResult::Rejected, true},
        {"silence", "", ConnectResult::NoAnswer},
        {"half a line", "{\"type\":", ConnectResult::NoAnswer},
        {"another message", "{\"type\":\"pong\"}\n", ConnectResult::BadAnswer},
        {"no JSON", "HTTP/1.1 400\r\n", ConnectResult::BadAnswer},
        {"short key", session_ready("AAAA"), ConnectResult::BadAnswer},
        {"long key", session_ready(std::string(44, 'A')), ConnectResult::BadAnswer},
        {"endless line", std::string(100'000, 'x'), ConnectResult::BadAnswer},
    };
    for (const auto& c : cases) {
        const test::PortBlock ports;
        const UniqueFd listener = test::occupy_tcp_port(ports.control());
        UniqueFd held;
        std::jthread server([&] {
            UniqueFd client = serve(listener.get(), c.resets, c.answer);
            if (!c.closes) held = std::move(client);
        });
        ControlClient client;
        const auto patience = milliseconds(c.result == ConnectResult::NoAnswer ? 300 : 10'000);
        EXPECT_EQ(client.connect("localhost", ports.control(), "{}", SteadyClock::now() + patience,
                                 nullptr),
                  c.result)
            << c.what << ": " << client.error();
        EXPECT_EQ(client.is_connected(), c.result == ConnectResult::Ready) << c.what;
        server.join();
    }
}

}  // namespace
}  // namespace ox::launcher
