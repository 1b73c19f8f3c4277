#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "transport/outgoing_packet.h"
#include "transport/probe.h"
#include "transport/token_bucket.h"

namespace ox {

/// One media stream's UDP socket: paced sending, and a listener for the launcher's hole-punch
/// probe, whose source becomes the destination. `send_*` and `set_pacing_rate` belong to one
/// sending thread; the counters may be read and `take_moved` called from any thread; everything
/// else belongs to the owner.
class UdpSender {
  public:
    UdpSender() = default;
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    /// Binds `src_port` already, without a word, so that no probe is too early for the `open` that
    /// follows with the same port, which also reports what fails here.
    void reserve(uint16_t src_port);

    /// Binds `src_port` (0: the kernel picks one at the first send) and aims at `dest_ip` (dotted
    /// IPv4) and `dest_port`. False with an error line when anything fails. An open sender is
    /// closed first; the counters run on.
    bool open(const std::string& dest_ip, uint16_t dest_port, uint16_t src_port);
    [[nodiscard]] bool is_open() const { return socket_.is_open(); }
    /// errno with which the last `open` failed to bind its port; 0 when it could.
    [[nodiscard]] int bind_error() const { return bind_error_; }

    /// Asks probes to carry the first 8 bytes of `token`. Call before `start_probe_listener`.
    void set_probe_token(const uint8_t* token, size_t length);

    /// Starts listening for the first valid probe since `open`; later ones are never read unless
    /// the launcher comes back. Does nothing when it was called before.
    void start_probe_listener();

    /// A launcher has come back and proved its token; call this before it is told so. One more
    /// probe counts: the first to come from now on from `peer_ip`, its end of the control
    /// connection, or from `media_ip`, where its media is to go (dotted IPv4 both). Until then a
    /// destination that came from a probe stays; else it becomes `media_ip` and `dest_port`. Any
    /// number of times; does nothing when closed.
    void expect_return(const std::string& peer_ip, const std::string& media_ip, uint16_t dest_port);

    /// Whether a probe has moved the destination since the last call.
    bool take_moved() { return moved_.exchange(false); }

    /// Waits for the first probe since `open`: true when it came, false after `timeout_s`
    /// (negative: no limit, 0: at once), when `abort`, asked at least every 100 ms, returns true,
    /// or when another thread closes the sender.
    bool wait_for_probe(int timeout_s, const std::function<bool()>& abort);

    /// Bits per second to pace at, with a 16 ms burst; 0 switches pacing off.
    void set_pacing_rate(uint32_t bits_per_second);

    /// Paces, then sends one datagram. False when closed or the kernel refused it.
    bool send_raw(const uint8_t* bytes, size_t length);
    /// Sends header and sealed payload as one datagram. False when larger than 1264 bytes.
    bool send_packet(const OutgoingPacket& packet);

    /// Ends the listener (within 200 ms) and closes the socket. Nothing happens when it is closed.
    void close();

    [[nodiscard]] uint64_t bytes_sent() const { return bytes_sent_; }
    [[nodiscard]] uint64_t packets_sent() const { return packets_sent_; }
    [[nodiscard]] uint64_t send_errors() const { return send_errors_; }
    [[nodiscard]] uint64_t pacing_sleeps() const { return pacing_sleeps_; }
    [[nodiscard]] uint64_t pacing_overruns() const { return pacing_overruns_; }

  private:
    bool adopt_reserved(uint16_t port);
    bool bind_anew(uint16_t port);
    void enlarge_send_buffer();
    void start_listening();
    void probe_loop();
    bool read_probe();
    [[nodiscard]] bool may_probe(in_addr source) const;
    void drop_queued_probes() const;
    void lock_endpoint(const sockaddr_in& source, ProbeKind kind);
    void pace(size_t length);

    UniqueFd reserved_;  ///< bound to `reserved_port_`, for the next `open`
    uint16_t reserved_port_ = 0;
    UniqueFd socket_;
    uint16_t local_port_ = 0;
    int bind_error_ = 0;
    /// IPv4 address and port that are sent to, packed into one word so that no datagram takes a
    /// lock.
    std::atomic<uint64_t> destination_{0};
    std::atomic<bool> moved_{false};  ///< by a probe, and not taken yet

    std::optional<ProbeToken> probe_token_;  ///< set before the listener starts
    std::mutex probe_mutex_;                 ///< held while one datagram is judged
    sockaddr_in configured_dest_{};  ///< where media is to go by the control connection; guarded by
                                     ///< probe_mutex_, as are the next two
    std::optional<std::array<in_addr_t, 2>> sources_;  ///< who may probe; none: anybody
    bool listening_ = false;                           ///< probe_thread_ will judge more datagrams
    std::atomic<bool> running_{false};                 ///< a probe listener is wanted
    std::mutex wait_mutex_;                            ///< held to change the next two
    std::atomic<bool> probe_received_{false};
    std::atomic<bool> closed_{true};
    std::condition_variable wait_cv_;
    std::jthread probe_thread_;

    std::optional<TokenBucket> bucket_;  ///< sending thread only; empty: no pacing

    std::atomic<uint64_t> bytes_sent_{0};
    std::atomic<uint64_t> packets_sent_{0};
    std::atomic<uint64_t> send_errors_{0};
    std::atomic<uint64_t> pacing_sleeps_{0};
    std::atomic<uint64_t> pacing_overruns_{0};
};

}  // namespace ox
