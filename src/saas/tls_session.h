#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct ssl_st;
struct ssl_ctx_st;

namespace ox {

/// What one attempt to move bytes came to.
enum class IoStatus {
    Done,
    WantRead,   ///< nothing moved; try again when the socket is readable
    WantWrite,  ///< nothing moved; try again when the socket is writable
    Closed,     ///< the peer has ended the stream
    Failed,     ///< the stream is unusable
};

struct IoResult {
    IoStatus status = IoStatus::Failed;
    size_t count = 0;  ///< bytes moved, with `Done`
};

/// The client side of one TLS connection over a non-blocking socket that it borrows. The server's
/// certificate must chain to the system's trust store and be made out to the host; TLS 1.2 at
/// least. One thread uses it from creation to destruction.
class TlsSession {
  public:
    /// Null when the library refuses, for example for a host name it cannot use.
    static std::unique_ptr<TlsSession> create(int fd, const std::string& host);

    IoStatus handshake();
    IoResult read(std::span<uint8_t> buffer);
    IoResult write(std::span<const uint8_t> bytes);
    /// Decrypted bytes wait inside, which `poll` cannot see.
    [[nodiscard]] bool has_pending() const;
    /// Tells the peer that the stream ends here, if that is still possible. Does not wait.
    void send_close_notify();

    [[nodiscard]] std::string cipher_name() const;
    /// Why the handshake failed: the first queued library error (which it takes off the queue), and
    /// the certificate's fault if there is one.
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
