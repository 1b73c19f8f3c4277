#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct ssl_st;
struct ssl_ctx_st;

namespace ox {

enum class IoStatus {
    Done,
    WantRead,   ///< try again when the socket is readable
    WantWrite,  ///< try again when the socket is writable
    Closed,     ///< the peer has ended the stream
    Failed,     ///< the stream is unusable
};

struct IoResult {
    IoStatus status = IoStatus::Failed;
    size_t count = 0;  ///< bytes, with `Done`
};

/// A TLS client (1.2 or later) on a non-blocking socket that it borrows. The server's certificate
/// must chain to the system's trust store and match the host. Used by one thread.
class TlsSession {
  public:
    /// Null when the library refuses, for instance because of the host name.
    static std::unique_ptr<TlsSession> create(int fd, const std::string& host);

    IoStatus handshake();
    IoResult read(std::span<uint8_t> buffer);
    IoResult write(std::span<const uint8_t> bytes);
    /// There are decrypted bytes, which `poll` does not see.
    [[nodiscard]] bool has_pending() const;
    /// Does not block.
    void send_close_notify();

    [[nodiscard]] std::string cipher_name() const;
    /// The library's first queued error, taken off the queue, and the certificate's fault.
    [[nodiscard]] std::string failure_text() const;

  private:
    struct ContextDeleter {
        void operator()(ssl_ctx_st* context) const noexcept;
    };
    struct SessionDeleter {
        void operator()(ssl_st* session) const noexcept;
    };

    TlsSession() = default;
    IoStatus classify(int result);

    std::unique_ptr<ssl_ctx_st, ContextDeleter> context_;
    std::unique_ptr<ssl_st, SessionDeleter> session_;
    bool usable_ = true;  ///< no fatal error so far
};

}  // namespace ox
