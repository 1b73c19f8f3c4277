#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace ox::test {

/// A plain TCP connection to a port of this machine, for saying anything to a server: whole lines,
/// parts of one, garbage.
class TcpClient {
  public:
    /// Tries again until somebody listens. Throws std::runtime_error when `timeout` passes.
    TcpClient(uint16_t port, std::chrono::milliseconds timeout);
    /// The other end of a connection that a test has accepted.
    explicit TcpClient(UniqueFd socket) : socket_(std::move(socket)) {}

    /// False when the server has closed.
    bool send(std::string_view bytes);

    /// What comes before the next `end`, or nothing when `timeout` passes or the server closes.
    std::optional<std::string> read_up_to(std::string_view end, std::chrono::milliseconds timeout);
    std::optional<std::string> read_line(std::chrono::milliseconds timeout) {
        return read_up_to("\n", timeout);
    }
    /// The next `size` bytes, or nothing.
    std::optional<std::string> take(size_t size, std::chrono::milliseconds timeout);

    /// Waits for the server to close or reset; what it sends until then is dropped.
    bool closed_within(std::chrono::milliseconds timeout);

    /// Ends the connection, at once and without ceremony (RST) when `abruptly`.
    void close(bool abruptly = false);

  private:
    bool receive(std::chrono::steady_clock::time_point deadline);

    UniqueFd socket_;
    std::string received_;
    bool ended_ = false;
};

}  // namespace ox::test
