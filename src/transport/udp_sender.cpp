#include "transport/udp_sender.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sodium.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/sleep.h"
#include "log/log.h"
#include "transport/debug_drop.h"

namespace ox {
namespace {

constexpr int kSendBufferBytes = 4 * 1024 * 1024;
constexpr int kExpeditedForwarding = 0xB8;  // DSCP 46 in the TOS byte
constexpr int kPollMs = 200;
constexpr std::chrono::milliseconds kWaitSlice{100};
/// More datagrams than the socket's receive buffer holds.
constexpr int kMaxQueuedProbes = 4096;

using AddressText = std::array<char, INET_ADDRSTRLEN>;

AddressText ip_text(const sockaddr_in& address) {
    AddressText text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text;
}

const sockaddr* as_sockaddr(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

std::optional<in_addr> parse_ip(const std::string& text) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
    return address;
}

sockaddr_in endpoint(in_addr address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr = address;
    return result;
}

constexpr unsigned kPortBits = 16;

uint64_t packed(const sockaddr_in& endpoint) {
    return uint64_t{endpoint.sin_addr.s_addr} << kPortBits | endpoint.sin_port;
}

sockaddr_in unpacked(uint64_t word) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = static_cast<in_port_t>(word);
    result.sin_addr.s_addr = static_cast<in_addr_t>(word >> kPortBits);
    return result;
}

UniqueFd make_socket() {
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (socket) ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return socket;
}

/// False with `errno` set when the port cannot be had.
bool bind_socket(const UniqueFd& socket, uint16_t port) {
    const sockaddr_in local = endpoint({.s_addr = htonl(INADDR_ANY)}, port);
    return ::bind(socket.get(), as_sockaddr(local), sizeof local) == 0;
}

const char* probe_name(ProbeKind kind) {
    return kind == ProbeKind::Legacy ? "legacy (1-byte)" : "hole-punch";
}

// Once per thread: the setting stays with the thread until it ends.
void sleep_precisely_until(SteadyClock::time_point deadline) {
    thread_local const bool slack_is_minimal = (use_minimal_timer_slack(), true);
    static_cast<void>(slack_is_minimal);
    sleep_until_steady(deadline);
}

}  // namespace

UdpSender::~UdpSender() {
    close();
}

bool UdpSender::open(const std::string& dest_ip, uint16_t dest_port, uint16_t src_port) {
    close();
    bind_error_ = 0;
    if (!adopt_reserved(src_port) && !bind_anew(src_port)) return false;
    local_port_ = src_port;
    enlarge_send_buffer();
    ::setsockopt(socket_.get(), IPPROTO_IP, IP_TOS, &kExpeditedForwarding,
                 sizeof kExpeditedForwarding);

    const std::optional<in_addr> address = parse_ip(dest_ip);
    if (!address) {
        OX_ERROR("UdpSender: bad dest ip '%s'", dest_ip.c_str());
        socket_.reset();
        return false;
    }
    {
        const std::lock_guard lock(probe_mutex_);
        configured_dest_ = endpoint(*address, dest_port);
        sources_.reset();
        listening_ = false;
        destination_ = packed(configured_dest_);
        moved_ = false;
    }
    {
        const std::lock_guard lock(wait_mutex_);
        probe_received_ = false;
        closed_ = false;
    }
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

bool UdpSender::bind_anew(uint16_t port) {
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

void UdpSender::enlarge_send_buffer() {
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    int effective = 0;
    socklen_t size = sizeof effective;
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &effective, &size) == 0) {
        OX_INFO("UdpSender: SO_SNDBUF requested=4MB effective=%d KB", effective / 1024);
    }
}

void UdpSender::set_probe_token(const uint8_t* token, size_t length) {
    constexpr size_t kBytes = ProbeToken::size();
    if (token == nullptr || length < kBytes) {
        OX_WARN("UdpSender: probe token too short (%zuB) — magic-only validation", length);
        probe_token_.reset();
        return;
    }
    probe_token_.emplace(std::span<const uint8_t, kBytes>(token, kBytes));
}

void UdpSender::start_probe_listener() {
    if (!is_open() || running_.exchange(true)) return;
    OX_INFO("UdpSender: waiting for hole-punch probe on port %u...", local_port_);
    start_listening();
}

void UdpSender::start_listening() {
    if (probe_thread_.joinable()) probe_thread_.join();
    listening_ = true;  // no listener is running
    try {
        probe_thread_ = std::jthread([this] { probe_loop(); });
    } catch (const std::system_error& error) {
        OX_ERROR("UdpSender: probe listener not started: %s", error.what());
        listening_ = running_ = false;
    }
}

void UdpSender::expect_return(const std::string& peer_ip, const std::string& media_ip,
                              uint16_t dest_port) {
    const std::optional<in_addr> media = parse_ip(media_ip);
    if (!is_open() || !media) return;
    OX_INFO("UdpSender: launcher is back at %s — waiting for its probe on port %u...",
            media_ip.c_str(), local_port_);
    {
        const std::lock_guard lock(probe_mutex_);
        // Old probes wait in the socket, also those that were sent until the stream arrived. The
        // launcher may have the same address and another port by now.
        drop_queued_probes();
        configured_dest_ = endpoint(*media, dest_port);
        sources_ = {media->s_addr, parse_ip(peer_ip).value_or(*media).s_addr};
        if (!probe_received_) destination_ = packed(configured_dest_);
        if (listening_) return;
    }
    running_ = true;
    start_listening();
}

void UdpSender::drop_queued_probes() const {
    uint8_t first_byte = 0;
    for (int i = 0; i < kMaxQueuedProbes; ++i)
        if (::recv(socket_.get(), &first_byte, sizeof first_byte, MSG_DONTWAIT) < 0) return;
}

void UdpSender::probe_loop() {
    ::pthread_setname_np(::pthread_self(), "ox-probe");
    while (running_) {
        pollfd readable{.fd = socket_.get(), .events = POLLIN, .revents = 0};
        const int ready = ::poll(&readable, 1, kPollMs);
        const bool failed = ready < 0 && errno != EINTR;
        if (ready == 0 || (ready < 0 && !failed)) continue;
        const std::lock_guard lock(probe_mutex_);
        if (failed || read_probe()) {
            listening_ = false;
            return;
        }
    }
}

bool UdpSender::may_probe(in_addr source) const {
    return !sources_ || std::ranges::find(*sources_, source.s_addr) != sources_->end();
}

bool UdpSender::read_probe() {
    std::array<uint8_t, kProbeReadBytes> bytes{};
    sockaddr_in source{};
    socklen_t source_size = sizeof source;
    const ssize_t length = ::recvfrom(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&source), &source_size);
    if (length <= 0) return false;
    const ProbeKind kind = classify_probe({bytes.data(), static_cast<size_t>(length)}, probe_token_,
                                          source.sin_addr, configured_dest_.sin_addr);
    if (kind == ProbeKind::Invalid || !may_probe(source.sin_addr)) {
        OX_DEBUG("UdpSender: ignoring invalid probe (%zdB) from %s:%u", length,
                 ip_text(source).data(), ntohs(source.sin_port));
        return false;
    }
    lock_endpoint(source, kind);
    return true;
}

void UdpSender::lock_endpoint(const sockaddr_in& source, ProbeKind kind) {
    const uint64_t destination = packed(source);
    if (destination_.exchange(destination) != destination) moved_ = true;
    OX_INFO("UdpSender: %s probe received from %s:%u — endpoint locked", probe_name(kind),
            ip_text(source).data(), ntohs(source.sin_port));
    const std::lock_guard lock(wait_mutex_);
    probe_received_ = true;
    wait_cv_.notify_all();
}

bool UdpSender::wait_for_probe(int timeout_s, const std::function<bool()>& abort) {
    using std::chrono::milliseconds;
    if (closed_) return false;
    if (timeout_s == 0) {
        OX_INFO("UdpSender: probe wait skipped — using TCP-derived endpoint");
        return false;
    }
    const auto deadline = SteadyClock::now() + std::chrono::seconds(timeout_s);
    const auto woken = [this] { return probe_received_ || closed_; };
    for (;;) {
        // Asked without the lock: what it does is the caller's business.
        if (!woken() && abort && abort()) {
            OX_WARN("UdpSender: probe wait aborted (session ending)");
            return false;
        }
        std::unique_lock lock(wait_mutex_);
        milliseconds slice = kWaitSlice;
        if (timeout_s > 0) {
            const auto remaining = deadline - SteadyClock::now();
            if (remaining <= remaining.zero() && !woken()) {
                OX_WARN("UdpSender: no valid probe within %ds — using TCP-derived endpoint",
                        timeout_s);
                return false;
            }
            slice = std::clamp(std::chrono::duration_cast<milliseconds>(remaining), milliseconds(1),
                               kWaitSlice);
        }
        if (wait_cv_.wait_for(lock, slice, woken)) return probe_received_ && !closed_;
    }
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
    const sockaddr_in destination = unpacked(destination_.load(std::memory_order_relaxed));
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
    // Filled below as far as it is sent. NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    std::array<uint8_t, kMaxDatagramBytes> datagram;
    std::memcpy(datagram.data(), &packet.header, kHeaderBytes);
    std::copy(payload.begin(), payload.end(), datagram.begin() + kHeaderBytes);
    return send_raw(datagram.data(), kHeaderBytes + payload.size());
}

void UdpSender::close() {
    if (!is_open()) return;
    {
        const std::lock_guard lock(wait_mutex_);
        running_ = false;
        closed_ = true;
        wait_cv_.notify_all();
    }
    // Spares the listener the rest of its poll where the kernel wakes it; its time-out does where
    // it does not.
    ::shutdown(socket_.get(), SHUT_RD);
    if (probe_thread_.joinable()) probe_thread_.join();
    socket_.reset();
    OX_INFO("UdpSender: closed (pkts=%llu bytes=%llu errs=%llu)",
            static_cast<unsigned long long>(packets_sent_),
            static_cast<unsigned long long>(bytes_sent_),
            static_cast<unsigned long long>(send_errors_));
}

}  // namespace ox
