#include "launcher/control_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <thread>

#include "support/port_block.h"

namespace ox::launcher {
namespace {

using std::chrono::milliseconds;

// A listener that gives its first clients the replies of a script, one connection each.
class ScriptedServer {
  public:
    enum class End : uint8_t { KeepOpen, Close, Reset };
    struct Reply {
        std::string bytes;
        End end = End::Close;
        bool read_first = true;
    };

    ScriptedServer(uint16_t port, std::vector<Reply> replies)
        : listener_(test::occupy_tcp_port(port)),
          thread_([this, replies = std::move(replies)] { run(replies); }) {}
    ~ScriptedServer() { done_ = true; }

  private:
    bool readable(int fd) {
        pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
        while (!done_)
            if (::poll(&entry, 1, 20) > 0) return true;
        return false;
    }
    void run(const std::vector<Reply>& replies) {
        std::vector<UniqueFd> open;
        for (const Reply& reply : replies) {
            if (!readable(listener_.get())) return;
            UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            char auth[512];
            if (reply.read_first &&
                (!readable(client.get()) || ::recv(client.get(), auth, sizeof auth, 0) <= 0))
                return;
            if (!reply.bytes.empty())
                ::send(client.get(), reply.bytes.data(), reply.bytes.size(), MSG_NOSIGNAL);
            if (reply.end == End::Reset) {
                const linger at_once{.l_onoff = 1, .l_linger = 0};
                ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
            }
            if (reply.end == End::KeepOpen) open.push_back(std::move(client));
        }
        while (!done_)
            std::this_thread::sleep_for(milliseconds(1));
    }

    std::atomic<bool> done_{false};
    UniqueFd listener_;
    std::jthread thread_;
};

const std::string kKeyText = std::string(42, 'A') + "8=";  // 32 bytes
std::string session_ready(const std::string& video_key) {
    return R"({"audio_key":")" + kKeyText + R"(","caps":0,"input_key":")" + kKeyText +
           R"(","type":"session_ready","video_key":")" + video_key + "\"}\n";
}

TEST(ControlClient, UnderstandsEveryAnswer) {
    using Reply = ScriptedServer::Reply;
    using End = ScriptedServer::End;
    const std::string good = session_ready(kKeyText);
    const struct {
        const char* what;
        std::vector<Reply> replies;
        ConnectResult result;
    } cases[] = {
        {"keys", {{good, End::KeepOpen}}, ConnectResult::Ready},
        {"closed", {{"", End::Close}}, ConnectResult::Rejected},
        {"cut off in the queue, then served",
         {{"", End::Reset, false}, {"", End::Reset}, {good, End::KeepOpen}},
         ConnectResult::Ready},
        {"silence", {{"", End::KeepOpen}}, ConnectResult::NoAnswer},
        {"half a line", {{"{\"type\":", End::KeepOpen}}, ConnectResult::NoAnswer},
        {"another message", {{"{\"type\":\"pong\"}\n", End::KeepOpen}}, ConnectResult::BadAnswer},
        {"no JSON", {{"HTTP/1.1 400\r\n", End::KeepOpen}}, ConnectResult::BadAnswer},
        {"short key", {{session_ready("AAAA"), End::KeepOpen}}, ConnectResult::BadAnswer},
        {"long key",
         {{session_ready(std::string(44, 'A')), End::KeepOpen}},
         ConnectResult::BadAnswer},
        {"endless line", {{std::string(100'000, 'x'), End::KeepOpen}}, ConnectResult::BadAnswer},
    };
    for (const auto& c : cases) {
        const test::PortBlock ports;
        ScriptedServer server(ports.control(), c.replies);
        ControlClient client;
        EXPECT_EQ(client.connect("localhost", ports.control(), "{}",
                                 SteadyClock::now() + milliseconds(800), nullptr),
                  c.result)
            << c.what << ": " << client.error();
        EXPECT_EQ(client.is_connected(), c.result == ConnectResult::Ready) << c.what;
        if (c.result == ConnectResult::Ready) {
            EXPECT_EQ(client.keys().video_key.size(), 32U);
        }
    }
}

TEST(ControlClient, TriesUntilTheDeadline) {
    const test::PortBlock ports;
    ControlClient client;
    const auto begin = SteadyClock::now();
    EXPECT_EQ(
        client.connect("127.0.0.1", ports.control(), "{}", begin + milliseconds(250), nullptr),
        ConnectResult::Refused);
    EXPECT_NE(client.error().find("Connection refused"), std::string::npos) << client.error();
    EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
}  // namespace ox::launcher
