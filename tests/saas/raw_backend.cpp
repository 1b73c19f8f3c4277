#include "saas/raw_backend.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <stdexcept>

namespace ox::test {
namespace {

constexpr std::chrono::seconds kLimit{10};

}  // namespace

RawBackend::RawBackend(int receive_buffer) {
    if (receive_buffer > 0) {
        ::setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
                     sizeof receive_buffer);
    }
}

RawPeer RawBackend::accept() {
    pollfd connecting{.fd = listener_.get(), .events = POLLIN, .revents = 0};
    if (::poll(&connecting, 1, 10'000) != 1) throw std::runtime_error("the agent does not connect");
    return RawPeer(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

std::string RawPeer::read_request() {
    return read_up_to("\r\n\r\n", kLimit).value_or("");
}

std::string RawPeer::accept_upgrade(std::string_view first) {
    std::string request = read_request();
    send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n" + std::string(first));
    return request;
}

void RawPeer::send_text(std::string_view text) {
    // In the form for up to 64 KiB, whatever the length.
    const std::string length{static_cast<char>(text.size() / 256), static_cast<char>(text.size())};
    send("\x81\x7E" + length + std::string(text));
}

std::optional<std::string> RawPeer::read_frame() {
    const auto byte = [this] {
        const auto one = take(1, kLimit);
        return one ? static_cast<uint8_t>(one->front()) : 0U;
    };
    const unsigned first = byte();
    if (first == 0) return std::nullopt;
    const unsigned second = byte();
    EXPECT_EQ(first, 0x81U) << "not one final text frame";
    EXPECT_EQ(second & 0x80U, 0x80U) << "a client has to mask";
    size_t size = second & 0x7FU;
    EXPECT_LT(size, 127U) << "longer than any message that is read here";
    if (size == 126) {
        size = byte() * 256U;
        size += byte();
    }
    const auto key = take(4, kLimit);
    auto payload = take(size, kLimit);
    for (size_t i = 0; payload && i < size; ++i) {
        (*payload)[i] = static_cast<char>((*payload)[i] ^ (*key)[i % 4]);
    }
    return payload;
}

bool RawPeer::closed() {
    return closed_within(kLimit);
}

}  // namespace ox::test
