#include "saas/tls_session.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>

namespace ox {
namespace {

bool is_address(const std::string& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

/// Makes the handshake fail unless the certificate matches `host`.
bool require_host(SSL* session, std::string host) {
    if (is_address(host)) {
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
    }
    // The final dot of an absolute name is for the resolver alone; no certificate has it.
    if (host.ends_with('.')) host.pop_back();
    SSL_set_hostflags(session, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    // The macro SSL_set_tlsext_host_name spelled out, without its C cast.
    return SSL_set1_host(session, host.c_str()) == 1 &&
           SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                    host.data()) == 1;
}

}  // namespace

void TlsSession::ContextDeleter::operator()(ssl_ctx_st* context) const noexcept {
    SSL_CTX_free(context);
}

void TlsSession::SessionDeleter::operator()(ssl_st* session) const noexcept {
    SSL_free(session);
}

std::unique_ptr<TlsSession> TlsSession::create(int fd, const std::string& host) {
    ERR_clear_error();
    std::unique_ptr<TlsSession> tls(new TlsSession());
    // A context per connection: the next attempt sees a renewed trust store.
    tls->context_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX* context = tls->context_.get();
    if (!context || SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_default_verify_paths(context) != 1) {
        return nullptr;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    tls->session_.reset(SSL_new(context));
    SSL* session = tls->session_.get();
    if (!session || SSL_set_fd(session, fd) != 1 || !require_host(session, host)) return nullptr;
    return tls;
}

IoStatus TlsSession::classify(int result) {
    switch (SSL_get_error(session_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return IoStatus::WantRead;
        case SSL_ERROR_WANT_WRITE:
            return IoStatus::WantWrite;
        case SSL_ERROR_ZERO_RETURN:
            return IoStatus::Closed;
        default:
            usable_ = false;
            return IoStatus::Failed;
    }
}

IoStatus TlsSession::handshake() {
    ERR_clear_error();
    const int result = SSL_connect(session_.get());
    return result == 1 ? IoStatus::Done : classify(result);
}

IoResult TlsSession::read(std::span<uint8_t> buffer) {
    ERR_clear_error();
    size_t count = 0;
    const int result = SSL_read_ex(session_.get(), buffer.data(), buffer.size(), &count);
    return result == 1 ? IoResult{IoStatus::Done, count} : IoResult{classify(result), 0};
}

IoResult TlsSession::write(std::span<const uint8_t> bytes) {
    ERR_clear_error();
    size_t count = 0;
    const int result = SSL_write_ex(session_.get(), bytes.data(), bytes.size(), &count);
    return result == 1 ? IoResult{IoStatus::Done, count} : IoResult{classify(result), 0};
}

bool TlsSession::has_pending() const {
    return SSL_pending(session_.get()) > 0;
}

void TlsSession::send_close_notify() {
    if (!usable_ || SSL_is_init_finished(session_.get()) != 1) return;
    ERR_clear_error();
    SSL_shutdown(session_.get());
}

std::string TlsSession::cipher_name() const {
    return SSL_CIPHER_get_name(SSL_get_current_cipher(session_.get()));
}

std::string TlsSession::failure_text() const {
    std::string text;
    if (const unsigned long error = ERR_get_error(); error != 0) {
        std::array<char, 256> buffer{};
        ERR_error_string_n(error, buffer.data(), buffer.size());
        text = buffer.data();
    } else {
        text = "connection closed by the server";
    }
    if (const long verdict = SSL_get_verify_result(session_.get()); verdict != X509_V_OK) {
        text += std::string(" (") + X509_verify_cert_error_string(verdict) + ")";
    }
    return text;
}

}  // namespace ox
