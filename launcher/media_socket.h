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

/// The UDP socket of one media stream: receives datagrams in batches and sends the probes that show
/// the agent where to send. Opened by its owner, then used by one thread.
class MediaSocket {
  public:
    using Sink = std::function<void(std::span<const uint8_t> datagram)>;

    MediaSocket();

    /// Binds `port` (0: any) at `local_ip`, dotted IPv4 (empty: at all addresses), with a large
    /// receive buffer. False, with a text for the user in `error`, when that fails.
    bool open(uint16_t port, std::string& error, const std::string& local_ip = {});
    /// The bound port; 0 when not open.
    [[nodiscard]] uint16_t port() const;

    /// Where probes go: dotted IPv4 address and port. False when the address is none.
    bool set_agent(const std::string& ip, uint16_t port);
    /// Sends one probe. Failures do not matter: the next one follows.
    void send_probe();

    /// Asks the kernel to note when each datagram came. Once open.
    void note_arrival_times();
    /// When the datagram last handed out came, by the kernel's real-time clock, in nanoseconds; 0
    /// unless asked for.
    [[nodiscard]] int64_t arrival_ns() const { return arrival_ns_; }

    /// Waits up to `timeout` for datagrams and hands all that are there to `sink`, one by one, each
    /// for the length of the call. False when the socket is broken.
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

}  // namespace ox::launcher
