#include "transport/probe_listener.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "base/clock.h"
#include "base/thread.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr unsigned kPortBits = 16;

uint64_t pack(const sockaddr_in& endpoint) {
    return uint64_t{endpoint.sin_addr.s_addr} << kPortBits | endpoint.sin_port;
}

std::array<char, INET_ADDRSTRLEN> ip_text(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text;
}

}  // namespace

sockaddr_in ipv4_endpoint(in_addr address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr = address;
    return result;
}

std::optional<in_addr> parse_ipv4(const std::string& text) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
    return address;
}

void ProbeListener::open(int socket, uint16_t local_port, const sockaddr_in& destination) {
    close();
    socket_ = socket;
    local_port_ = local_port;
    const MutexLock lock(mutex_);
    open_ = true;
    started_ = listening_ = probe_received_ = false;
    configured_ = destination;
    allowed_sources_.reset();
    destination_ = pack(destination);
    moved_ = false;
}

void ProbeListener::close() {
    {
        const MutexLock lock(mutex_);
        if (!open_) return;
        open_ = false;
        changed_.notify_all();
    }
    thread_.request_stop();
    // Wakes the poll at once where the kernel supports that; elsewhere it times out.
    ::shutdown(socket_, SHUT_RD);
    if (thread_.joinable()) thread_.join();
}

sockaddr_in ProbeListener::destination() const {
    const uint64_t word = destination_.load(std::memory_order_relaxed);
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = static_cast<in_port_t>(word);
    result.sin_addr.s_addr = static_cast<in_addr_t>(word >> kPortBits);
    return result;
}

void ProbeListener::set_token(const uint8_t* token, size_t length) {
    constexpr size_t kBytes = ProbeToken::size();
    const MutexLock lock(mutex_);
    if (token == nullptr || length < kBytes) {
        OX_WARN("UdpSender: probe token too short (%zuB) — magic-only validation", length);
        token_.reset();
        return;
    }
    token_.emplace(std::span<const uint8_t, kBytes>(token, kBytes));
}

void ProbeListener::start() {
    {
        const MutexLock lock(mutex_);
        if (!open_ || started_) return;
        started_ = listening_ = true;
    }
    OX_INFO("UdpSender: waiting for hole-punch probe on port %u...", local_port_);
    start_listening();
}

void ProbeListener::expect_return(const std::string& peer_ip, const std::string& media_ip,
                                  uint16_t dest_port) {
    const std::optional<in_addr> media = parse_ipv4(media_ip);
    {
        const MutexLock lock(mutex_);
        if (!open_ || !media) return;
        OX_INFO("UdpSender: launcher is back at %s — waiting for its probe on port %u...",
                media_ip.c_str(), local_port_);
        // Probes from before the return may be queued in the socket; the launcher may have another
        // port by now.
        drop_queued_probes();
        configured_ = ipv4_endpoint(*media, dest_port);
        allowed_sources_ = {media->s_addr, parse_ipv4(peer_ip).value_or(*media).s_addr};
        if (!probe_received_) destination_ = pack(configured_);
        if (listening_) return;
        started_ = listening_ = true;
    }
    start_listening();
}

void ProbeListener::drop_queued_probes() const {
    constexpr int kMaxQueued = 4096;  // more than the socket's receive buffer holds
    uint8_t first_byte = 0;
    for (int i = 0; i < kMaxQueued; ++i)
        if (::recv(socket_, &first_byte, sizeof first_byte, MSG_DONTWAIT) < 0) return;
}

/// An earlier thread has ended by itself, as `listening_` was false.
void ProbeListener::start_listening() {
    if (thread_.joinable()) thread_.join();
    thread_ = start_thread([this](const std::stop_token& stop) { run(stop); },
                           [this](const char* why) {
                               OX_ERROR("UdpSender: probe listener not started: %s", why);
                               const MutexLock lock(mutex_);
                               started_ = listening_ = false;
                           });
}

void ProbeListener::run(const std::stop_token& stop) {
    constexpr int kPollMs = 200;
    ::pthread_setname_np(::pthread_self(), "ox-probe");
    while (!stop.stop_requested()) {
        pollfd readable{.fd = socket_, .events = POLLIN, .revents = 0};
        const int ready = ::poll(&readable, 1, kPollMs);
        const bool failed = ready < 0 && errno != EINTR;
        if (ready <= 0 && !failed) continue;
        const MutexLock lock(mutex_);
        if (failed || read_probe()) {
            listening_ = false;
            return;
        }
    }
}

bool ProbeListener::read_probe() {
    std::array<uint8_t, kProbeReadBytes> bytes{};
    sockaddr_in source{};
    socklen_t source_size = sizeof source;
    const ssize_t length = ::recvfrom(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&source), &source_size);
    if (length <= 0) return false;
    const ProbeKind kind = classify_probe({bytes.data(), static_cast<size_t>(length)}, token_,
                                          source.sin_addr, configured_.sin_addr);
    const bool allowed =
        !allowed_sources_ ||
        std::ranges::find(*allowed_sources_, source.sin_addr.s_addr) != allowed_sources_->end();
    if (kind == ProbeKind::Invalid || !allowed) {
        OX_DEBUG("UdpSender: ignoring invalid probe (%zdB) from %s:%u", length,
                 ip_text(source).data(), ntohs(source.sin_port));
        return false;
    }
    const uint64_t destination = pack(source);
    if (destination_.exchange(destination) != destination) moved_ = true;
    OX_INFO("UdpSender: %s probe received from %s:%u — endpoint locked",
            kind == ProbeKind::Legacy ? "legacy (1-byte)" : "hole-punch", ip_text(source).data(),
            ntohs(source.sin_port));
    probe_received_ = true;
    changed_.notify_all();
    return true;
}

bool ProbeListener::wait(int timeout_s, const std::function<bool()>& abort) {
    constexpr std::chrono::milliseconds kSlice{100};
    const auto deadline = SteadyClock::now() + std::chrono::seconds(timeout_s);
    for (bool first = true;; first = false) {
        {
            MutexLock lock(mutex_);
            if (!open_) return false;
            if (first && timeout_s == 0) {
                OX_INFO("UdpSender: probe wait skipped — using TCP-derived endpoint");
                return false;
            }
            if (probe_received_) return true;
            if (!first) {
                const auto now = SteadyClock::now();
                if (timeout_s > 0 && now >= deadline) {
                    OX_WARN("UdpSender: no valid probe within %ds — using TCP-derived endpoint",
                            timeout_s);
                    return false;
                }
                lock.wait_until(changed_,
                                timeout_s > 0 ? std::min(deadline, now + kSlice) : now + kSlice);
                if (!open_) return false;
                if (probe_received_) return true;
            }
        }
        // Called without the lock: it may take its time.
        if (abort && abort()) {
            OX_WARN("UdpSender: probe wait aborted (session ending)");
            return false;
        }
    }
}

}  // namespace ox
