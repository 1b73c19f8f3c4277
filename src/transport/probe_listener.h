#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "transport/probe.h"

namespace ox {

sockaddr_in ipv4_endpoint(in_addr address, uint16_t port);
std::optional<in_addr> parse_ipv4(const std::string& text);

/// Where one sender's media goes: to the configured destination, then to the source of the first
/// hole-punch probe. Any thread may call `destination` and `take_moved`, the owner the rest; see
/// UdpSender for their meaning.
class ProbeListener {
  public:
    ProbeListener() = default;
    ~ProbeListener() { close(); }
    ProbeListener(const ProbeListener&) = delete;
    ProbeListener& operator=(const ProbeListener&) = delete;

    /// Starts over with a bound socket, which stays open until `close`.
    void open(int socket, uint16_t local_port, const sockaddr_in& destination) OX_EXCLUDES(mutex_);
    /// Ends the waits and, within 200 ms, the thread.
    void close() OX_EXCLUDES(mutex_);

    void set_token(const uint8_t* token, size_t length) OX_EXCLUDES(mutex_);
    void start() OX_EXCLUDES(mutex_);
    void expect_return(const std::string& peer_ip, const std::string& media_ip, uint16_t dest_port)
        OX_EXCLUDES(mutex_);
    bool wait(int timeout_s, const std::function<bool()>& abort) OX_EXCLUDES(mutex_);

    [[nodiscard]] sockaddr_in destination() const;
    bool take_moved() { return moved_.exchange(false); }

  private:
    void start_listening();
    void run(const std::stop_token& stop) OX_EXCLUDES(mutex_);
    bool read_probe() OX_REQUIRES(mutex_);
    void drop_queued_probes() const;

    int socket_ = -1;  ///< owner; constant while the thread runs, as is the next
    uint16_t local_port_ = 0;

    Mutex mutex_;  ///< held while a datagram is judged
    std::condition_variable changed_;
    bool open_ OX_GUARDED_BY(mutex_) = false;
    bool started_ OX_GUARDED_BY(mutex_) = false;    ///< since `open`
    bool listening_ OX_GUARDED_BY(mutex_) = false;  ///< the thread will judge more datagrams
    bool probe_received_ OX_GUARDED_BY(mutex_) = false;
    std::optional<ProbeToken> token_ OX_GUARDED_BY(mutex_);
    sockaddr_in configured_ OX_GUARDED_BY(mutex_){};
    /// Addresses that may send probes; any when not set.
    std::optional<std::array<in_addr_t, 2>> allowed_sources_ OX_GUARDED_BY(mutex_);

    /// Packed into one word, so that no datagram sent takes a lock.
    std::atomic<uint64_t> destination_{0};
    std::atomic<bool> moved_{false};
    std::jthread thread_;
};

}  // namespace ox
