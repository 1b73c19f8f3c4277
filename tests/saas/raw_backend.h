#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include "support/sockets.h"
#include "support/tcp_client.h"

namespace ox::test {

/// The backend's end of one connection, for correct and incorrect bytes. Every wait ends after 10
/// s.
class RawPeer : public TcpClient {
  public:
    using TcpClient::TcpClient;

    /// The upgrade request; empty when the agent closes.
    std::string read_request() { return read_up_to("\r\n\r\n", kLimit).value_or(""); }

    /// Reads the request and accepts it; `first` is sent in the same segment.
    std::string accept_upgrade(std::string_view first = "") {
        std::string request = read_request();
        send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n" + std::string(first));
        return request;
    }

    /// One unmasked final text frame, always with a 16-bit length.
    void send_text(std::string_view text) {
        const auto size = text.size();
        send(std::string{'\x81', '\x7E', static_cast<char>(size / 256), static_cast<char>(size)} +
             std::string(text));
    }

    /// The next text frame's payload; empty when the agent closes. An invalid frame fails the test.
    std::string read_frame() {
        const auto number = [this](size_t bytes) {
            size_t value = 0;
            for (const char byte : take(bytes, kLimit).value_or(""))
                value = value << 8 | static_cast<uint8_t>(byte);
            return value;
        };
        const size_t head = number(2);
        if (head == 0) return {};
        EXPECT_EQ(head >> 7, 0x81U << 1 | 1U) << "not one final text frame, masked by a client";
        size_t size = head & 0x7FU;
        EXPECT_LT(size, 127U) << "too long for this test";
        if (size == 126) size = number(2);
        const auto key = take(4, kLimit);
        std::string payload = take(size, kLimit).value_or("");
        for (size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<char>(payload[i] ^ (*key)[i % 4]);
        return payload;
    }

    bool closed() { return closed_within(kLimit); }

  private:
    static constexpr std::chrono::seconds kLimit{10};
};

/// A backend on a free port of this machine.
class RawBackend {
  public:
    /// `receive_buffer` in bytes, 0 leaves the system's.
    explicit RawBackend(int receive_buffer = 0) {
        if (receive_buffer == 0) return;
        ::setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
                     sizeof receive_buffer);
    }
    [[nodiscard]] uint16_t port() const noexcept { return port_; }

    /// Waits for the agent to connect.
    RawPeer accept() {
        pollfd connecting{.fd = listener_.get(), .events = POLLIN, .revents = 0};
        if (::poll(&connecting, 1, 10'000) != 1)
            throw std::runtime_error("the agent does not connect");
        return RawPeer(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    }

  private:
    UniqueFd listener_ = bound_socket(SOCK_STREAM, 0);
    uint16_t port_ = port_of(listener_);
};

}  // namespace ox::test
