#include "saas/raw_backend.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>

namespace ox::test {
namespace {

bool wait_readable(int fd) {
    pollfd poll_fd{.fd = fd, .events = POLLIN, .revents = 0};
    return ::poll(&poll_fd, 1, 10'000) == 1;
}

}  // namespace

RawBackend::RawBackend(int receive_buffer)
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receive_buffer > 0) {
        ::setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
                     sizeof receive_buffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (::bind(listener_.get(), generic, size) != 0 || ::listen(listener_.get(), 16) != 0 ||
        ::getsockname(listener_.get(), generic, &size) != 0) {
        throw std::runtime_error("no port for the backend");
    }
    port_ = ntohs(address.sin_port);
}

RawPeer RawBackend::accept() {
    if (!wait_readable(listener_.get())) throw std::runtime_error("the agent does not connect");
    return RawPeer(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

bool RawPeer::read_more() {
    std::array<char, 65'536> buffer;
    if (!wait_readable(socket_.get())) return false;
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    received_.append(buffer.data(), static_cast<size_t>(count));
    return true;
}

std::string RawPeer::read_request() {
    size_t end = 0;
    while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
        if (!read_more()) return "";
    }
    return take(end + 4).value_or("");
}

std::string RawPeer::accept_upgrade(std::string_view first) {
    std::string request = read_request();
    send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n" + std::string(first));
    return request;
}

void RawPeer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

void RawPeer::send_text(std::string_view text) {
    // In the form for up to 64 KiB, whatever the length.
    const std::string length{static_cast<char>(text.size() / 256), static_cast<char>(text.size())};
    send("\x81\x7E" + length + std::string(text));
}

std::optional<std::string> RawPeer::take(size_t size) {
    while (received_.size() < size) {
        if (!read_more()) return std::nullopt;
    }
    std::string taken = received_.substr(0, size);
    received_.erase(0, size);
    return taken;
}

std::optional<std::string> RawPeer::read_frame() {
    const auto head = take(2);
    if (!head) return std::nullopt;
    const auto first = static_cast<uint8_t>((*head)[0]);
    const auto second = static_cast<uint8_t>((*head)[1]);
    EXPECT_EQ(first & 0xF0U, 0x80U) << "not one final frame";
    EXPECT_EQ(second & 0x80U, 0x80U) << "a client has to mask";
    size_t size = second & 0x7FU;
    EXPECT_LT(size, 127U) << "longer than any message that is read here";
    if (size == 126) {
        const std::string length = take(2).value_or("\0\0");
        size = static_cast<uint8_t>(length[0]) * 256U + static_cast<uint8_t>(length[1]);
    }
    const auto key = take(4);
    auto payload = take(size);
    if (!payload) return std::nullopt;
    for (size_t i = 0; i < size; ++i) {
        (*payload)[i] = static_cast<char>((*payload)[i] ^ (*key)[i % 4]);
    }
    const unsigned opcode = first & 0x0FU;
    return opcode == 1 ? *payload : std::to_string(opcode) + ":" + *payload;
}

bool RawPeer::closed() {
    while (read_more())
        received_.clear();
    return wait_readable(socket_.get());
}

void RawPeer::reset() {
    const linger abort{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    socket_.reset();
}

}  // namespace ox::test
