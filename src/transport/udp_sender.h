#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "transport/packet.h"
#include "transport/probe_listener.h"
#include "transport/token_bucket.h"

namespace ox {

/// One media stream's UDP socket: paced sending to a destination that the launcher's hole-punch
/// probe moves. `send_*` and `set_pacing_rate` belong to one sending thread; the counters may be
/// read and `take_moved` called from any thread; everything else belongs to the owner.
class UdpSender {
  public:
    UdpSender() = default;
    ~UdpSender() { close(); }
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    /// Ahead of `open`, which reports failures, so that no probe is too early.
    void reserve(uint16_t src_port);

    /// Binds `src_port` (0: any) and aims at a dotted IPv4 address. False with an error line on
    /// failure. Closes an open sender first; the counters continue.
    bool open(const std::string& dest_ip, uint16_t dest_port, uint16_t src_port);
    [[nodiscard]] bool is_open() const { return socket_.is_open(); }
    /// errno with which the last `open` failed to bind its port; 0 when it could.
    [[nodiscard]] int bind_error() const { return bind_error_; }

    /// Probes must carry the first 8 bytes of `token` from now on.
    void set_probe_token(const uint8_t* token, size_t length) { probe_.set_token(token, length); }

    /// Reads the first valid probe since `open`, and later ones only after `expect_return`.
    void start_probe_listener() { probe_.start(); }

    /// For a launcher that has returned and proved its token, before the answer. Accepts one more
    /// probe, from `peer_ip`, its end of the control connection, or `media_ip` (dotted IPv4 both).
    /// A destination from a probe stays until then; any other becomes `media_ip` and `dest_port`.
    void expect_return(const std::string& peer_ip, const std::string& media_ip,
                       uint16_t dest_port) {
        probe_.expect_return(peer_ip, media_ip, dest_port);
    }

    /// Whether a probe has moved the destination since the last call.
    bool take_moved() { return probe_.take_moved(); }

    /// Since `open`: true when it came; false after `timeout_s` (negative: no limit), once `abort`,
    /// polled every 100 ms, is true, or when another thread closes.
    bool wait_for_probe(int timeout_s, const std::function<bool()>& abort) {
        return probe_.wait(timeout_s, abort);
    }

    /// Bits per second to pace at, with a 16 ms burst; 0 switches pacing off.
    void set_pacing_rate(uint32_t bits_per_second);

    /// Paces, then sends one datagram. False when closed or the kernel refused it.
    bool send_raw(const uint8_t* bytes, size_t length);
    /// Sends header and sealed payload as one datagram. False when larger than 1264 bytes.
    bool send_packet(const OutgoingPacket& packet);

    /// Ends the listener (within 200 ms) and closes the socket. No effect when closed.
    void close();

    [[nodiscard]] uint64_t bytes_sent() const { return bytes_sent_; }
    [[nodiscard]] uint64_t packets_sent() const { return packets_sent_; }
    [[nodiscard]] uint64_t send_errors() const { return send_errors_; }
    [[nodiscard]] uint64_t pacing_sleeps() const { return pacing_sleeps_; }
    [[nodiscard]] uint64_t pacing_overruns() const { return pacing_overruns_; }

  private:
    bool adopt_reserved(uint16_t port);
    bool bind_new(uint16_t port);
    void set_socket_options();
    void pace(size_t length);

    UniqueFd reserved_;  ///< bound to `reserved_port_`, for the next `open`
    uint16_t reserved_port_ = 0;
    UniqueFd socket_;
    int bind_error_ = 0;
    ProbeListener probe_;
    std::optional<TokenBucket> bucket_;  ///< sending thread only; empty: no pacing

    std::atomic<uint64_t> bytes_sent_{0};
    std::atomic<uint64_t> packets_sent_{0};
    std::atomic<uint64_t> send_errors_{0};
    std::atomic<uint64_t> pacing_sleeps_{0};
    std::atomic<uint64_t> pacing_overruns_{0};
};

}  // namespace ox
