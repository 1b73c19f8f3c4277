#include "transport/udp_sender.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/sleep.h"
#include "log/log.h"
#include "transport/debug_drop.h"

namespace ox {
namespace {

const sockaddr* as_sockaddr(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

UniqueFd make_socket() {
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (socket) ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return socket;
}

/// False with `errno` set when the port is not available.
bool bind_socket(const UniqueFd& socket, uint16_t port) {
    const sockaddr_in local = ipv4_endpoint({.s_addr = htonl(INADDR_ANY)}, port);
    return ::bind(socket.get(), as_sockaddr(local), sizeof local) == 0;
}

// The timer slack stays with the thread until it ends, so one call per thread is enough.
void sleep_precisely_until(SteadyClock::time_point deadline) {
    thread_local const bool slack_is_minimal = (use_minimal_timer_slack(), true);
    static_cast<void>(slack_is_minimal);
    sleep_until_steady(deadline);
}

}  // namespace

bool UdpSender::open(const std::string& dest_ip, uint16_t dest_port, uint16_t src_port) {
    close();
    bind_error_ = 0;
    if (!adopt_reserved(src_port) && !bind_new(src_port)) return false;
    set_socket_options();
    const std::optional<in_addr> address = parse_ipv4(dest_ip);
    if (!address) {
        OX_ERROR("UdpSender: bad dest ip '%s'", dest_ip.c_str());
        socket_.reset();
        return false;
    }
    probe_.open(socket_.get(), src_port, ipv4_endpoint(*address, dest_port));
    OX_INFO("UdpSender: -> %s:%u (src :%u, will update on probe)", dest_ip.c_str(), dest_port,
            src_port);
    return true;
}

void UdpSender::reserve(uint16_t src_port) {
    reserved_ = make_socket();
    reserved_port_ = src_port;
    if (reserved_ && !bind_socket(reserved_, src_port)) reserved_.reset();
}

bool UdpSender::adopt_reserved(uint16_t port) {
    UniqueFd reserved = std::move(reserved_);
    if (!reserved || port == 0 || port != reserved_port_) return false;
    socket_ = std::move(reserved);
    return true;
}

bool UdpSender::bind_new(uint16_t port) {
    socket_ = make_socket();
    if (!socket_) {
        OX_ERROR("UdpSender: socket() failed: %s", std::strerror(errno));
        return false;
    }
    if (port == 0 || bind_socket(socket_, port)) return true;
    bind_error_ = errno;
    OX_ERROR("UdpSender: bind :%u failed: %s", port, std::strerror(bind_error_));
    socket_.reset();
    return false;
}

void UdpSender::set_socket_options() {
    constexpr int kSendBufferBytes = 4 * 1024 * 1024;
    constexpr int kExpeditedForwarding = 0xB8;  // DSCP 46 in the TOS byte
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    int effective = 0;
    socklen_t size = sizeof effective;
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &effective, &size) == 0) {
        OX_INFO("UdpSender: SO_SNDBUF requested=4MB effective=%d KB", effective / 1024);
    }
    ::setsockopt(socket_.get(), IPPROTO_IP, IP_TOS, &kExpeditedForwarding,
                 sizeof kExpeditedForwarding);
}

void UdpSender::set_pacing_rate(uint32_t bits_per_second) {
    bucket_.reset();
    const uint32_t bytes_per_second = bits_per_second / 8;
    if (bytes_per_second == 0) return;
    bucket_.emplace(bytes_per_second, SteadyClock::now());
    OX_INFO("UdpSender: pacing at %u kbps", bits_per_second / 1000);
}

void UdpSender::pace(size_t length) {
    const auto now = SteadyClock::now();
    const TokenBucket::Decision decision = bucket_->take(length, now);
    if (decision.sleep.count() > 0) {
        sleep_precisely_until(now + decision.sleep);
        pacing_sleeps_.fetch_add(1, std::memory_order_relaxed);
    }
    if (decision.overrun) pacing_overruns_.fetch_add(1, std::memory_order_relaxed);
}

bool UdpSender::send_raw(const uint8_t* bytes, size_t length) {
    if (!socket_) return false;
    if (bucket_) pace(length);
    if (draw_debug_drop()) return true;
    const sockaddr_in destination = probe_.destination();
    const ssize_t sent =
        ::sendto(socket_.get(), bytes, length, 0, as_sockaddr(destination), sizeof destination);
    if (sent < 0) {
        send_errors_.fetch_add(1, std::memory_order_relaxed);
        OX_DEBUG("UdpSender: send error: %s", std::strerror(errno));
        return false;
    }
    bytes_sent_.fetch_add(static_cast<uint64_t>(sent), std::memory_order_relaxed);
    packets_sent_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool UdpSender::send_packet(const OutgoingPacket& packet) {
    const std::span<const uint8_t> payload = packet.payload.bytes();
    if (kHeaderBytes + payload.size() > kMaxDatagramBytes) return false;
    // Filled below as far as sent. NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    std::array<uint8_t, kMaxDatagramBytes> datagram;
    std::memcpy(datagram.data(), &packet.header, kHeaderBytes);
    std::copy(payload.begin(), payload.end(), datagram.begin() + kHeaderBytes);
    return send_raw(datagram.data(), kHeaderBytes + payload.size());
}

void UdpSender::close() {
    if (!is_open()) return;
    probe_.close();
    socket_.reset();
    OX_INFO("UdpSender: closed (pkts=%llu bytes=%llu errs=%llu)",
            static_cast<unsigned long long>(packets_sent_),
            static_cast<unsigned long long>(bytes_sent_),
            static_cast<unsigned long long>(send_errors_));
}

}  // namespace ox
