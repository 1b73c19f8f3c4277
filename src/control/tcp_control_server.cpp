#include "control/tcp_control_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sodium.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/text.h"
#include "base/thread.h"
#include "control/tcp_socket.h"
#include "control/udp_destination.h"
#include "log/log.h"

namespace ox {
namespace {
constexpr int kDefaultAcceptTimeoutS = 60;
constexpr size_t kMaxControlLine = 8192;
}  // namespace

TcpControlServer::~TcpControlServer() {
    close();
}

bool TcpControlServer::accept_and_handshake(uint16_t port, const AbortPredicate& abort,
                                            int accept_timeout_s) {
    if (listen_socket_ || client_socket_) close();
    connected_ = false;
    failure = handshake(port, abort, accept_timeout_s);
    if (failure == HandshakeFailure::none) return true;
    close();
    return false;
}

HandshakeFailure TcpControlServer::handshake(uint16_t port, const AbortPredicate& abort,
                                             int accept_timeout_s) {
    if (::sodium_init() < 0) {
        OX_ERROR("TcpControlServer: libsodium init failed");
        return HandshakeFailure::cannot_listen;
    }
    const int error = open_listener(port, listen_socket_);
    if (on_listen) on_listen(port, error);
    if (error != 0) return HandshakeFailure::cannot_listen;

    HandshakeFailure step = accept_launcher(port, abort, accept_timeout_s);
    if (step != HandshakeFailure::none) return step;
    {
        Secret line;
        step = receive_auth_line(abort, line);
        if (step != HandshakeFailure::none) return step;
        if (!authenticate(line.text())) return HandshakeFailure::rejected;
    }
    generate_session_keys();
    if (before_ready) before_ready();
    if (!send_line(make_session_ready(keys, granted_caps).text())) {
        OX_ERROR("TcpControlServer: failed to send session_ready");
        return HandshakeFailure::cannot_answer;
    }
    connected_ = true;
    OX_INFO("TcpControlServer: handshake complete, session keys sent");
    return HandshakeFailure::none;
}

HandshakeFailure TcpControlServer::accept_launcher(uint16_t port, const AbortPredicate& abort,
                                                   int accept_timeout_s) {
    const int seconds = accept_timeout_s < 1 ? kDefaultAcceptTimeoutS : accept_timeout_s;
    const auto deadline = SteadyClock::now() + std::chrono::seconds(seconds);
    OX_INFO("TcpControlServer: listening on port %u, waiting for client (%ds accept deadline)...",
            unsigned{port}, seconds);
    WaitResult wait;
    while ((wait = wait_readable(listen_socket_.get(), deadline, abort)) == WaitResult::readable) {
        UniqueFd accepted(::accept4(listen_socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        // Linux also accepts a connection that was reset while it was queued, with its error.
        const int error = accepted ? take_pending_error(accepted.get()) : errno;
        if (accepted && error == 0) {
            set_client(std::move(accepted));
            return HandshakeFailure::none;
        }
        if (!accepted && (error == EINTR || error == EAGAIN)) continue;
        if (accepted || error == ECONNABORTED || error == ECONNRESET || error == EPROTO) {
            OX_WARN("TcpControlServer: handoff reset (%s) — still accepting", std::strerror(error));
            continue;
        }
        OX_ERROR("TcpControlServer: accept failed: %s", std::strerror(error));
        return HandshakeFailure::cannot_accept;
    }
    if (wait == WaitResult::aborted) {
        OX_WARN("TcpControlServer: accept aborted (session ending / shutdown)");
        return HandshakeFailure::aborted;
    }
    // The system's own text, whatever the deadline was.
    OX_ERROR("TcpControlServer: accept timed out after %ds", kDefaultAcceptTimeoutS);
    return HandshakeFailure::timed_out;
}

void TcpControlServer::set_client(UniqueFd socket) {
    tune_client_socket(socket.get());
    tcp_remote_ip.clear();
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (::getpeername(socket.get(), reinterpret_cast<sockaddr*>(&peer), &size) == 0) {
        std::array<char, INET_ADDRSTRLEN> text{};
        ::inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size());
        tcp_remote_ip = text.data();
        OX_INFO("TcpControlServer: client connected from %s:%u", tcp_remote_ip.c_str(),
                unsigned{ntohs(peer.sin_port)});
    }
    client_socket_ = std::move(socket);
    const MutexLock lock(send_mutex_);
    send_socket_ = client_socket_.get();
}

HandshakeFailure TcpControlServer::receive_auth_line(const AbortPredicate& abort, Secret& line) {
    const auto deadline = SteadyClock::now() + auth_timeout;
    switch (read_auth_line(client_socket_.get(), deadline, abort, line)) {
        case AuthRead::complete:
            return HandshakeFailure::none;
        case AuthRead::too_large:
            OX_ERROR("TcpControlServer: auth message too large (%zu bytes)", line.size());
            return HandshakeFailure::rejected;
        case AuthRead::aborted:
            OX_WARN("TcpControlServer: auth read aborted");
            return HandshakeFailure::aborted;
        case AuthRead::timed_out:
            OX_ERROR("TcpControlServer: auth read %s", "timed out");
            return HandshakeFailure::timed_out;
        case AuthRead::failed:
            OX_ERROR("TcpControlServer: auth read %s", "failed");
            return HandshakeFailure::timed_out;
        case AuthRead::closed:
            break;
    }
    OX_ERROR("TcpControlServer: client closed during auth");
    return HandshakeFailure::rejected;
}

bool TcpControlServer::authenticate(std::string_view line) {
    AuthMessage message;
    if (const auto error = parse_auth_message(line, message)) {
        if (error->kind == AuthError::Kind::wrong_type) {
            OX_ERROR("TcpControlServer: expected 'auth' message, got '%s'", error->text.c_str());
        } else {
            OX_ERROR("TcpControlServer: JSON parse error: %s", error->text.c_str());
        }
        return false;
    }
    set_request(message);
    return verify_token(message.token.text());
}

void TcpControlServer::set_request(const AuthMessage& message) {
    requested = message.stream;
    launcher_caps = message.caps;
    granted_caps = grant_caps(launcher_caps, host_caps);
    set_udp_ip(message.udp_ip);
    OX_INFO("TcpControlServer: auth request — codec=%d %dx%d @%dfps %dkbps", requested.codec,
            requested.width, requested.height, requested.fps, requested.bitrate);
}

void TcpControlServer::set_udp_ip(const std::string& reported) {
    udp_ip = reported;
    switch (judge_udp_override(reported, tcp_remote_ip)) {
        case UdpOverride::none:
            return;
        case UdpOverride::same:
            OX_INFO("TcpControlServer: launcher UDP IP matches TCP remote: %s",
                    tcp_remote_ip.c_str());
            return;
        case UdpOverride::overrides:
            OX_INFO(
                "TcpControlServer: launcher self-reported UDP IP = %s (overrides TCP remote %s)",
                udp_ip.c_str(), tcp_remote_ip.c_str());
            return;
        case UdpOverride::ignored:
            OX_WARN(
                "TcpControlServer: udp_ip '%s' is a different public address from TCP '%s' — "
                "ignoring override",
                text::printable(reported).c_str(), tcp_remote_ip.c_str());
            udp_ip = tcp_remote_ip;
            return;
    }
}

bool TcpControlServer::verify_token(std::string_view token) const {
    if (expected_token_sha256.empty()) {
        OX_ERROR(
            "TcpControlServer: SECURITY — no session_token_sha256 supplied (refusing unverified "
            "handshake; fail-closed)");
        return false;
    }
    if (!token_matches(token, expected_token_sha256)) {
        OX_ERROR("TcpControlServer: session token verification FAILED — rejecting client");
        return false;
    }
    OX_INFO("TcpControlServer: session token verified (SHA-256 match)");
    return true;
}

std::string TcpControlServer::remote_address() const {
    switch (choose_udp_destination(udp_ip, tcp_remote_ip)) {
        case UdpDestination::unknown:
            return {};
        case UdpDestination::tcp_remote:
            OX_DEBUG("TcpControlServer: using TCP remote IP as UDP dest: %s",
                     tcp_remote_ip.c_str());
            return tcp_remote_ip;
        case UdpDestination::reported:
            OX_DEBUG("TcpControlServer: using launcher-provided UDP IP: %s", udp_ip.c_str());
            return udp_ip;
        case UdpDestination::tcp_remote_not_local:
            break;
    }
    OX_WARN(
        "TcpControlServer: launcher self-reported UDP IP %s is private but TCP remote is %s "
        "(public) — cross-internet session, using TCP remote instead",
        udp_ip.c_str(), tcp_remote_ip.c_str());
    return tcp_remote_ip;
}

bool TcpControlServer::send_line(std::string_view text) {
    Secret line;  // it may carry keys
    line.reserve(text.size() + 1);
    line.append(text);
    line.append("\n");
    const MutexLock lock(send_mutex_);
    return send_all(send_socket_, line.text());
}

void TcpControlServer::start_async_read() {
    if (!client_socket_ || reading_.exchange(true)) return;
    reader_thread_ =
        start_thread([this] { reader_loop(); },
                     [this](const char* why) {
                         OX_ERROR("TcpControlServer: cannot start the reader thread: %s", why);
                         reading_ = false;
                         connected_ = false;  // a disconnect would go unnoticed
                     });
}

void TcpControlServer::reader_loop() {
    ::pthread_setname_np(::pthread_self(), "ox-control");
    const int socket = client_socket_.get();  // open for as long as this thread runs
    LineSplitter splitter(kMaxControlLine);
    const auto handle = [this](const LineSplitter::Line& line) { handle_line(line); };
    const auto stopped = [this] { return !reading_; };
    std::array<char, 2048> buffer{};
    for (;;) {
        const auto wait = wait_readable(socket, SteadyClock::time_point::max(), stopped);
        if (wait != WaitResult::readable && wait != WaitResult::failed) break;
        // Data received before a reset still counts: a launcher that leaves without reading our
        // last pong resets the connection right after its "end_session".
        const ssize_t received = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        const bool again = received < 0 && (errno == EAGAIN || errno == EINTR);
        if (again && wait == WaitResult::readable) continue;
        if (received <= 0) break;
        splitter.feed({buffer.data(), static_cast<size_t>(received)}, handle);
    }
    connected_ = false;
    OX_INFO("TcpControlServer: client disconnected");
}

void TcpControlServer::handle_line(const LineSplitter::Line& line) {
    if (line.length == 0) return;
    if (line.length > kMaxControlLine) {
        OX_WARN("TcpControlServer: oversized control message (%zu bytes) — ignoring", line.length);
        return;
    }
    const ControlLine parsed = parse_control_line(line.text);
    if (const auto* ping = std::get_if<Ping>(&parsed)) {
        send_line(make_pong(ping->ts));
    } else if (const auto* message = std::get_if<ControlMessage>(&parsed)) {
        if (on_message) on_message(*message);
    } else if (const auto* malformed = std::get_if<MalformedLine>(&parsed)) {
        OX_TRACE("TcpControlServer: malformed message: %s", malformed->error.c_str());
    }
}

void TcpControlServer::close() {
    connected_ = false;
    reading_ = false;
    // Wakes the reader and a blocked writer; the descriptor must stay open until both are done.
    if (client_socket_) ::shutdown(client_socket_.get(), SHUT_RDWR);
    if (reader_thread_.joinable()) reader_thread_.join();
    {
        const MutexLock lock(send_mutex_);
        send_socket_ = -1;
    }
    client_socket_.reset();
    listen_socket_.reset();
    OX_INFO("TcpControlServer: closed");
}

}  // namespace ox
