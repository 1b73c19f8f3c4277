#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "support/sockets.h"
#include "support/tcp_client.h"

namespace ox::test {

/// The backend's end of one connection, byte for byte: says also what no correct server would.
/// Whatever is waited for is given up after 10 s.
class RawPeer : public TcpClient {
  public:
    using TcpClient::TcpClient;

    /// The upgrade request; empty when the agent closes.
    std::string read_request();
    /// Reads the request and accepts it; `first` goes out in the same segment.
    std::string accept_upgrade(std::string_view first = "");
    /// One unmasked final text frame.
    void send_text(std::string_view text);
    /// The next text frame's payload, or nothing when the agent closes. Fails the test on a frame
    /// that a client must not send.
    std::optional<std::string> read_frame();
    bool closed();
};

/// A backend on a free port of this machine.
class RawBackend {
  public:
    /// `receive_buffer` in bytes, 0 leaves the system's.
    explicit RawBackend(int receive_buffer = 0);
    [[nodiscard]] uint16_t port() const noexcept { return port_; }
    /// Waits for the agent to connect.
    RawPeer accept();

  private:
    UniqueFd listener_ = bound_socket(SOCK_STREAM, 0);
    uint16_t port_ = port_of(listener_);
};

}  // namespace ox::test
