#include "control/tcp_control_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sodium.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "base/clock.h"
#include "base/text.h"
#include "control/auth_message.h"
#include "control/auth_reader.h"
#include "control/capabilities.h"
#include "control/client_socket.h"
#include "control/port_check.h"
#include "control/session_ready.h"
#include "control/token_check.h"
#include "control/udp_destination.h"
#include "control/wait_readable.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr int kDefaultAcceptTimeoutS = 60;
constexpr size_t kLongestControlLine = 8192;

/// Binds all addresses, also while old connections of the port time out. False leaves errno.
bool bind_listener(int fd, uint16_t port) {
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

const char* in_words(HandshakeFailure failure) {
    switch (failure) {
        case HandshakeFailure::rejected:
            return "AUTH_REJECTED";
        case HandshakeFailure::timed_out:
            return "HANDSHAKE_TIMEOUT";
        case HandshakeFailure::aborted:
            return "SESSION_ABORTED";
        case HandshakeFailure::none:
        case HandshakeFailure::cannot_listen:
        case HandshakeFailure::cannot_accept:
        case HandshakeFailure::cannot_answer:
            break;
    }
    return "AUTH_FAIL";
}

}  // namespace

int tcp_port_error(uint16_t port) {
    const UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd && bind_listener(fd.get(), port) ? 0 : errno;
}

TcpControlServer::~TcpControlServer() {
    close();
}

bool TcpControlServer::accept_and_handshake(uint16_t port, const AbortPredicate& abort,
                                            int accept_timeout_s) {
    if (listen_socket_ || client_socket_) close();
    fail(HandshakeFailure::cannot_listen);  // until it does
    connected_ = false;
    if (::sodium_init() < 0) {
        OX_ERROR("TcpControlServer: libsodium init failed");
        return false;
    }
    if (handshake(port, abort, accept_timeout_s)) return true;
    close();
    return false;
}

bool TcpControlServer::handshake(uint16_t port, const AbortPredicate& abort, int accept_timeout_s) {
    if (!open_listener(port) || !accept_launcher(port, abort, accept_timeout_s)) return false;
    const auto auth_deadline = SteadyClock::now() + limits.auth;
    {
        Secret line;
        if (!receive_auth_line(auth_deadline, abort, line) || !authenticate(line.text())) {
            return false;
        }
    }
    generate_session_keys();
    if (before_ready) before_ready();
    if (!send_session_ready()) {
        OX_ERROR("TcpControlServer: failed to send session_ready");
        return fail(HandshakeFailure::cannot_answer);
    }
    connected_ = true;
    failure = HandshakeFailure::none;
    OX_INFO("TcpControlServer: handshake complete, session keys sent");
    return true;
}

bool TcpControlServer::open_listener(uint16_t port) {
    const int error = try_to_listen(port);
    if (on_listen) on_listen(port, error);
    return error == 0;
}

int TcpControlServer::try_to_listen(uint16_t port) {
    // Non-blocking: a connection that goes away between poll and accept must not hang the latter.
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        const int error = errno;
        OX_ERROR("TcpControlServer: socket() failed: %s", std::strerror(error));
        return error;
    }
    if (!bind_listener(fd.get(), port)) {
        const int error = errno;
        OX_ERROR("TcpControlServer: bind :%u failed: %s", unsigned{port}, std::strerror(error));
        return error;
    }
    if (::listen(fd.get(), 1) != 0) {
        const int error = errno;
        OX_ERROR("TcpControlServer: listen failed: %s", std::strerror(error));
        return error;
    }
    listen_socket_ = std::move(fd);
    return 0;
}

bool TcpControlServer::accept_launcher(uint16_t port, const AbortPredicate& abort,
                                       int accept_timeout_s) {
    const int seconds = accept_timeout_s < 1 ? kDefaultAcceptTimeoutS : accept_timeout_s;
    const auto deadline = SteadyClock::now() + std::chrono::seconds(seconds);
    OX_INFO("TcpControlServer: listening on port %u, waiting for client (%ds accept deadline)...",
            unsigned{port}, seconds);
    WaitResult wait;
    while ((wait = wait_readable(listen_socket_.get(), deadline, abort)) == WaitResult::readable) {
        UniqueFd accepted(::accept4(listen_socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        // Linux hands out a connection that was reset while it waited, its error with it.
        const int error = accepted ? take_pending_error(accepted.get()) : errno;
        if (accepted && error == 0) {
            take_client(std::move(accepted));
            return true;
        }
        if (!accepted && (error == EINTR || error == EAGAIN)) continue;
        if (accepted || error == ECONNABORTED || error == ECONNRESET || error == EPROTO) {
            OX_WARN("TcpControlServer: handoff reset (%s) — still accepting", std::strerror(error));
            continue;
        }
        OX_ERROR("TcpControlServer: accept failed: %s", std::strerror(error));
        return fail(HandshakeFailure::cannot_accept);
    }
    if (wait == WaitResult::aborted) {
        OX_WARN("TcpControlServer: accept aborted (session ending / shutdown)");
        return fail(HandshakeFailure::aborted);
    }
    // The text names the default whatever deadline was in force.
    OX_ERROR("TcpControlServer: accept timed out after %ds", kDefaultAcceptTimeoutS);
    return fail(HandshakeFailure::timed_out);
}

void TcpControlServer::take_client(UniqueFd socket) {
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
    const std::lock_guard lock(send_mutex_);
    client_socket_ = std::move(socket);
}

bool TcpControlServer::receive_auth_line(SteadyClock::time_point deadline,
                                         const AbortPredicate& abort, Secret& line) {
    switch (read_auth_line(client_socket_.get(), deadline, abort, line)) {
        case AuthRead::complete:
            return true;
        case AuthRead::too_large:
            OX_ERROR("TcpControlServer: auth message too large (%zu bytes)", line.size());
            return fail(HandshakeFailure::rejected);
        case AuthRead::aborted:
            OX_WARN("TcpControlServer: auth read aborted");
            return fail(HandshakeFailure::aborted);
        case AuthRead::timed_out:
            OX_ERROR("TcpControlServer: auth read %s", "timed out");
            return fail(HandshakeFailure::timed_out);
        case AuthRead::failed:
            OX_ERROR("TcpControlServer: auth read %s", "failed");
            return fail(HandshakeFailure::timed_out);
        case AuthRead::closed:
            break;
    }
    OX_ERROR("TcpControlServer: client closed during auth");
    return fail(HandshakeFailure::rejected);
}

bool TcpControlServer::authenticate(std::string_view line) {
    AuthMessage message;
    if (const auto error = parse_auth_message(line, message)) {
        if (error->kind == AuthError::Kind::wrong_type) {
            OX_ERROR("TcpControlServer: expected 'auth' message, got '%s'", error->text.c_str());
        } else {
            OX_ERROR("TcpControlServer: JSON parse error: %s", error->text.c_str());
        }
        return fail(HandshakeFailure::rejected);
    }
    take_request(message);
    return verify_token(message.token.text()) || fail(HandshakeFailure::rejected);
}

void TcpControlServer::take_request(const AuthMessage& message) {
    requested = {.codec = message.codec,
                 .width = message.width,
                 .height = message.height,
                 .fps = message.fps,
                 .bitrate = message.bitrate};
    launcher_caps = message.caps;
    granted_caps = grant_caps(launcher_caps, host_caps);
    choose_udp_ip(message.udp_ip);
    OX_INFO("TcpControlServer: auth request — codec=%d %dx%d @%dfps %dkbps", requested.codec,
            requested.width, requested.height, requested.fps, requested.bitrate);
}

void TcpControlServer::choose_udp_ip(const std::string& reported) {
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

void TcpControlServer::generate_session_keys() {
    keys.generate(master_key);
}

bool TcpControlServer::send_session_ready() {
    return send_line(make_session_ready(keys, granted_caps).text());
}

bool TcpControlServer::fail(HandshakeFailure why) {
    failure = why;
    last_error = in_words(why);
    return false;
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

bool TcpControlServer::is_connected() const {
    return connected_;
}

bool TcpControlServer::send_line(std::string_view text) {
    Secret line;  // it may carry keys
    line.reserve(text.size() + 1);
    line.append(text);
    line.append("\n");
    const std::lock_guard lock(send_mutex_);
    return send_whole(client_socket_.get(), line.text());
}

void TcpControlServer::start_async_read() {
    if (!client_socket_ || reading_.exchange(true)) return;
    try {
        reader_thread_ = std::jthread([this, socket = client_socket_.get()] {
            ::pthread_setname_np(::pthread_self(), "ox-control");
            reader_loop(socket);
        });
    } catch (const std::system_error& error) {
        OX_ERROR("TcpControlServer: cannot start the reader thread: %s", error.what());
        reading_ = false;
        connected_ = false;  // nobody would notice the launcher's going
    }
}

void TcpControlServer::reader_loop(int socket) {
    LineSplitter splitter(kLongestControlLine);
    const auto handle = [this](const LineSplitter::Line& line) { handle_line(line); };
    const auto stopped = [this] { return !reading_; };
    std::array<char, 2048> buffer{};
    for (;;) {
        const auto wait = wait_readable(socket, SteadyClock::time_point::max(), stopped);
        if (wait != WaitResult::readable && wait != WaitResult::failed) break;
        // What came before a reset still counts: a launcher that leaves without reading our last
        // pong resets the connection behind its "end_session".
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
    if (line.length > kLongestControlLine) {
        OX_WARN("TcpControlServer: oversized control message (%zu bytes) — ignoring", line.length);
        return;
    }
    dispatch(parse_control_line(line.text));
}

void TcpControlServer::dispatch(const ControlMessage& message) {
    const auto notify = [this](const std::string& type) {
        if (message_callback) message_callback(type);
    };
    if (const auto* ping = std::get_if<PingMessage>(&message)) {
        send_line(make_pong(ping->ts));
    } else if (const auto* settings = std::get_if<SettingsChange>(&message)) {
        settings_callback ? settings_callback(*settings) : notify("set_settings");
    } else if (const auto* stats = std::get_if<ClientStats>(&message)) {
        stats_callback ? stats_callback(*stats) : notify("stats");
    } else if (const auto* named = std::get_if<NamedMessage>(&message)) {
        notify(named->type);
    } else if (const auto* malformed = std::get_if<MalformedMessage>(&message)) {
        OX_TRACE("TcpControlServer: malformed message: %s", malformed->why.c_str());
    }
}

void TcpControlServer::close() {
    connected_ = false;
    reading_ = false;
    // Wakes a reader in its poll and a writer that waits for room; the descriptor itself must live
    // until both have let go of it.
    if (client_socket_) ::shutdown(client_socket_.get(), SHUT_RDWR);
    if (reader_thread_.joinable()) reader_thread_.join();
    {
        const std::lock_guard lock(send_mutex_);
        client_socket_.reset();
    }
    listen_socket_.reset();
    OX_INFO("TcpControlServer: closed");
}

}  // namespace ox
