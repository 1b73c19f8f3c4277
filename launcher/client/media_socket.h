#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "base/unique_fd.h"

namespace ox::launcher {

/// The UDP socket of one media stream: receives datagrams in batches and sends the probes from
/// which the agent learns its destination. Opened by its owner, then used by one thread.
class MediaSocket {
  public:
    using Sink = std::function<void(std::span<const uint8_t> datagram)>;

    MediaSocket();

    /// Binds `port` (0: any) at `local_ip`, dotted IPv4 (empty: at all addresses), with a large
    /// receive buffer. False, with a text for the user in `error`, when that fails.
    bool open(uint16_t port, std::string& error, const std::string& local_ip = {});
    [[nodiscard]] uint16_t port() const;

    /// Sets the probes' destination: dotted IPv4 address and port. False for no valid address.
    bool set_agent(const std::string& ip, uint16_t port);
    /// Ignores failures: the next probe follows.
    void send_probe();

    /// Makes the kernel record each datagram's arrival time. After `open`.
    void enable_arrival_times();
    /// Of the datagram last passed to a sink, in ns of the real-time clock; 0 if not enabled.
    [[nodiscard]] int64_t arrival_ns() const { return arrival_ns_; }
    /// How long that datagram has waited in the kernel and in its batch; 0 if not enabled.
    [[nodiscard]] uint64_t waited_us() const;

    /// Waits up to `timeout` for datagrams and passes all available ones to `sink`, one by one;
    /// each is valid during the call. False when the socket is broken.
    bool receive(std::chrono::milliseconds timeout, const Sink& sink);

    /// Datagrams that the kernel dropped because the receive buffer was full.
    [[nodiscard]] uint64_t kernel_drops() const { return kernel_drops_; }

  private:
    static constexpr size_t kBatch = 64;
    static constexpr size_t kSlotBytes = 1536;  // above any datagram of an agent

    static constexpr size_t kControlBytes =
        CMSG_SPACE(sizeof(uint32_t)) + CMSG_SPACE(sizeof(timespec));

    void read_control(msghdr& message);

    UniqueFd socket_;
    sockaddr_in agent_{};
    uint64_t kernel_drops_ = 0;
    int64_t arrival_ns_ = 0;
    std::array<mmsghdr, kBatch> messages_{};
    std::array<iovec, kBatch> slots_{};
    std::array<std::array<uint8_t, kSlotBytes>, kBatch> bytes_{};
    alignas(cmsghdr) std::array<std::array<uint8_t, kControlBytes>, kBatch> control_{};
};

/// When to send hole-punch probes for one media stream: ten times a second until media arrives, and
/// again when it pauses for a second, as the NAT mapping may be gone. Pure; used by one thread.
class ProbeTimer {
  public:
    /// After `eager_us` without media the rate drops to once a second; 0 = never.
    explicit ProbeTimer(uint64_t eager_us = 0) : eager_us_(eager_us) {}

    /// A due probe counts as sent. `last_media_us` is 0 before the first packet.
    bool due(uint64_t now_us, uint64_t last_media_us) {
        if (first_us_ == 0) first_us_ = now_us;
        const bool flowing = last_media_us != 0 && now_us < last_media_us + kSilenceUs;
        if (now_us < next_us_ || flowing) return false;
        const bool eager = eager_us_ == 0 || now_us < first_us_ + eager_us_;
        next_us_ = now_us + (eager ? kPeriodUs : kSlowPeriodUs);
        return true;
    }

  private:
    static constexpr uint64_t kPeriodUs = 100'000;
    static constexpr uint64_t kSlowPeriodUs = 1'000'000;
    static constexpr uint64_t kSilenceUs = 1'000'000;

    uint64_t eager_us_;
    uint64_t first_us_ = 0;
    uint64_t next_us_ = 0;
};

}  // namespace ox::launcher
