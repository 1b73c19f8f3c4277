#include "saas/saas_connector.h"

#include <pthread.h>
#include <sodium.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <utility>
#include <variant>

#include "base/secret.h"
#include "base/sleep.h"
#include "base/thread.h"
#include "log/log.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

/// The TLS library writes with `write`, which raises SIGPIPE on a connection that was reset.
void block_sigpipe() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace

/// A connection that `stop` can abort while it exists.
class SaasConnector::PublishedConnection {
  public:
    explicit PublishedConnection(SaasConnector& owner)
        : owner_(owner), connection_(owner.running_, owner.timing_.connection) {
        const MutexLock lock(owner_.connection_mutex_);
        owner_.connection_ = &connection_;
        // A `stop` that was earlier than this has found nothing to abort.
        if (!owner_.running_) connection_.abort();
    }
    ~PublishedConnection() {
        connection_.close();
        const MutexLock lock(owner_.connection_mutex_);
        owner_.connection_ = nullptr;
        owner_.connection_gone_.notify_all();
    }
    PublishedConnection(const PublishedConnection&) = delete;
    PublishedConnection& operator=(const PublishedConnection&) = delete;

    TcpConnection& operator*() noexcept { return connection_; }
    TcpConnection* operator->() noexcept { return &connection_; }

  private:
    SaasConnector& owner_;
    TcpConnection connection_;
};

SaasConnector::SaasConnector(SaasConfig config, ConnectorTiming timing)
    : config_(std::move(config)), timing_(timing), backoff_(timing.backoff) {}

SaasConnector::~SaasConnector() {
    stop();
}

void SaasConnector::set_prepare_session_callback(PrepareSessionCallback callback) {
    prepare_session_ = std::move(callback);
}

void SaasConnector::set_terminate_session_callback(TerminateSessionCallback callback) {
    terminate_session_ = std::move(callback);
}

void SaasConnector::set_link_callback(LinkCallback callback) {
    link_changed_ = std::move(callback);
}

void SaasConnector::report_link(LinkEvent event) {
    if (link_changed_) link_changed_(event);
}

void SaasConnector::start() {
    if (worker_.joinable()) std::terminate();
    running_ = true;
    worker_ =
        start_thread([this] { run_loop(); },
                     [this](const char* reason) {
                         running_ = false;
                         OX_ERROR("SaasConnector: cannot start the worker thread: %s", reason);
                     });
}

void SaasConnector::stop() {
    running_ = false;
    connected_ = false;
    queue_.wake();
    {
        const auto deadline = SteadyClock::now() + timing_.drain_timeout;
        MutexLock lock(connection_mutex_);
        while (connection_ && SteadyClock::now() < deadline)
            lock.wait_until(connection_gone_, deadline);
        if (connection_) connection_->abort();
    }
    if (worker_.joinable()) worker_.join();
}

void SaasConnector::run_loop() {
    ::pthread_setname_np(::pthread_self(), "ox-saas");
    block_sigpipe();
    while (running_) {
        const PlatformEndpoint& backend = config_.backend;
        OX_INFO("SaasConnector: connecting to %s:%u%s", loggable(backend.host).c_str(),
                unsigned{backend.port}, backend.tls ? " (wss)" : " (ws)");
        bool handshaken = false;
        try {
            handshaken = run_connection();
        } catch (const std::exception& error) {
            OX_ERROR("SaasConnector: connection given up: %s", error.what());
        }
        connected_ = false;
        if (!running_) break;
        const milliseconds wait = after_disconnect(handshaken);
        sleep_until_or(SteadyClock::now() + wait, [this] { return !running_; });
    }
    OX_INFO("SaasConnector: stopped");
}

milliseconds SaasConnector::after_disconnect(bool handshaken) {
    report_link(LinkEvent::Lost);
    const milliseconds wait = backoff_.next_wait(handshaken, close_code_);
    if (close_code_ == kCloseReplaced) {
        report_link(LinkEvent::Replaced);
        OX_ERROR(
            "SaasConnector: another agent with the same server token connected (%s) and replaced "
            "this one - two agents must not share one server token; waiting %d s before "
            "reconnecting",
            close_reason_.empty() ? "close code 4009" : redacted(close_reason_).c_str(),
            static_cast<int>(wait.count() / 1000));
    }
    close_code_ = 0;
    OX_WARN("SaasConnector: disconnected, retry in %dms", static_cast<int>(wait.count()));
    return wait;
}

bool SaasConnector::run_connection() {
    close_code_ = 0;
    close_reason_.clear();
    backend_pings_ = false;
    const PlatformEndpoint& backend = config_.backend;
    PublishedConnection connection(*this);
    if (!connection->open(backend.host, backend.port, backend.tls)) return false;
    WsLink link(*connection, config_.agent_token, timing_.link);
    const auto handshake = link.ws_handshake(backend.host, running_);
    if (handshake == WsLink::Handshake::TokenRefused) report_link(LinkEvent::TokenRefused);
    if (handshake != WsLink::Handshake::Accepted) return false;

    mark_connected();
    if (const size_t stale = queue_.take_all().size(); stale > 0) {
        OX_WARN("SaasConnector: discarding %zu stale queued messages on reconnect", stale);
    }
    send_register();
    resend_cached();
    const ServeEnd end = serve(link);
    if (send_queued(link) && end == ServeEnd::Stopped) connection->shut_down();
    close_code_ = link.close_code();
    close_reason_ = link.close_reason();
    return true;
}

void SaasConnector::mark_connected() {
    connected_ = true;
    OX_INFO("SaasConnector: WebSocket connected");
    report_link(LinkEvent::Connected);
}

void SaasConnector::resend_cached() {
    const MutexLock lock(cache_mutex_);
    if (!pending_session_ready_.empty()) {
        OX_INFO("SaasConnector: re-sending cached session_ready");
        send_json(pending_session_ready_);
    }
    for (const auto& [key, entry] : final_messages_.entries()) {
        OX_INFO("SaasConnector: re-sending cached terminal message (%s)", redacted(key).c_str());
        send_json(entry.text);
    }
}

SaasConnector::ServeEnd SaasConnector::serve(WsLink& link) {
    auto heartbeat_at = SteadyClock::now();
    for (;;) {
        if (!send_queued(link)) return ServeEnd::Broken;
        // After the queue, which also consumes the wake-up of `stop`.
        if (!running_) return ServeEnd::Stopped;
        const auto now = SteadyClock::now();
        if (now - heartbeat_at > timing_.heartbeat) {
            do_heartbeat();
            heartbeat_at = now;
        }
        if (is_dead(link)) return ServeEnd::Broken;
        switch (link.wait(poll_timeout(link, heartbeat_at), queue_.wake_fd())) {
            case TcpConnection::Wait::Ready:
                if (!receive(link)) return ServeEnd::Broken;
                break;
            case TcpConnection::Wait::TimedOut:
            case TcpConnection::Wait::Woken:
                break;
            case TcpConnection::Wait::Broken:
                return ServeEnd::Broken;
        }
    }
}

bool SaasConnector::is_dead(const WsLink& link) const {
    const auto silent = SteadyClock::now() - link.last_frame_at();
    if (backend_pings_ && silent > timing_.silence) {
        OX_WARN(
            "SaasConnector: nothing received for %lld ms although the backend pings - closing to "
            "reconnect",
            static_cast<long long>(std::chrono::floor<milliseconds>(silent).count()));
        return true;
    }
    if (!link.frame_stalled()) return false;
    OX_WARN("SaasConnector: the rest of a frame did not come - closing");
    return true;
}

milliseconds SaasConnector::poll_timeout(const WsLink& link,
                                         SteadyClock::time_point heartbeat_at) const {
    auto due = heartbeat_at + timing_.heartbeat;
    if (backend_pings_) due = std::min(due, link.last_frame_at() + timing_.silence);
    // One millisecond more: both are due only after their time has passed.
    auto wait = std::chrono::ceil<milliseconds>(due - SteadyClock::now()) + milliseconds(1);
    if (queue_.wake_fd() < 0) wait = std::min(wait, milliseconds(100));
    return std::max(wait, milliseconds(0));
}

bool SaasConnector::send_queued(WsLink& link) {
    for (const std::string& text : queue_.take_all()) {
        if (!link.ws_send_frame(text)) return false;
    }
    return true;
}

bool SaasConnector::receive(WsLink& link) {
    if (!link.read_available()) return false;
    for (std::string message; running_;) {
        switch (link.ws_recv_message(message)) {
            case WsLink::Receive::Message:
                if (!message.empty()) handle_message(message);
                wipe(message);  // it may hold a session's key
                break;
            case WsLink::Receive::NeedMore:
                return true;
            case WsLink::Receive::Drop:
                return false;
        }
    }
    return true;
}

void SaasConnector::handle_message(const std::string& text) {
    const auto handler = Overloaded{
        [&](const BackendPing&) {
            backend_pings_ = true;
            send_json(pong_message());
        },
        [&](const TerminateSession& terminate) {
            if (terminate_session_) terminate_session_(terminate.session_id, terminate.reason);
        },
        [&](PrepareSessionParams& params) { handle_prepare(std::move(params), text); },
        [&](const BadMessage& bad) { log_bad_message(bad, text); },
        [&](const UnknownMessage& unknown) {
            OX_DEBUG("SaasConnector: unhandled message type '%s'", redacted(unknown.type).c_str());
        },
    };
    PlatformMessage message = parse_platform_message(text);
    std::visit(handler, message);
}

void SaasConnector::handle_prepare(PrepareSessionParams params, const std::string& text) {
    if (params.session_token_sha256.empty()) {
        OX_WARN(
            "SaasConnector: prepare_session has no session_token_sha256 — TCP auth falls back to "
            "non-empty-token check (downgrade)");
    }
    OX_INFO("SaasConnector: prepare_session id=%s codec=%s res=%s fps=%u bitrate=%ukbps",
            redacted(params.session_id).c_str(), redacted(params.codec).c_str(),
            redacted(params.resolution).c_str(), params.fps, params.bitrate_kbps);
    if (!prepare_session_) return;
    try {
        prepare_session_(std::move(params));
    } catch (const std::exception& error) {
        log_bad_message({BadMessage::Kind::BadPrepare, error.what()}, text);
    }
}

void SaasConnector::log_bad_message(const BadMessage& bad, const std::string& text) const {
    switch (bad.kind) {
        case BadMessage::Kind::InvalidJson:
            OX_WARN("SaasConnector: invalid JSON: %.80s",
                    redacted(redact_broken_json(text), 80).c_str());
            return;
        case BadMessage::Kind::WrongType:
            OX_WARN("SaasConnector: message ignored: %s", redacted(bad.detail).c_str());
            return;
        case BadMessage::Kind::BadPrepare:
            OX_ERROR("SaasConnector: prepare_session error: %s raw=%.200s",
                     redacted(bad.detail).c_str(), redacted(redact_secrets(text), 200).c_str());
            return;
    }
}

void SaasConnector::send_json(std::string text) {
    queue_.push(std::move(text));
}

void SaasConnector::send_register() {
    send_json(register_message(config_));
    const SystemInfo& pc = config_.system_info;
    OX_INFO("SaasConnector: sent register (gpu=%s vram=%uMB port_base=%u)",
            loggable(pc.gpu_model).c_str(), pc.gpu_vram_mb, unsigned{config_.port_base});
}

void SaasConnector::do_heartbeat() {
    send_json(heartbeat_message(load_probe_.cpu_usage_pct(), load_probe_.ram_free_mb()));
}

void SaasConnector::send_session_ready(const std::string& session_id, const std::string& public_ip,
                                       uint16_t video_port, uint16_t audio_port,
                                       uint16_t input_port) {
    std::string text =
        session_ready_message(session_id, public_ip, video_port, audio_port, input_port);
    {
        const MutexLock lock(cache_mutex_);
        pending_session_ready_ = text;
    }
    send_json(std::move(text));
}

void SaasConnector::send_session_ended(const std::string& session_id, const std::string& reason,
                                       uint32_t duration_sec) {
    std::string text = session_ended_message(session_id, reason, duration_sec);
    {
        const MutexLock lock(cache_mutex_);
        pending_session_ready_.clear();
        final_messages_.store(session_id, text);
    }
    send_json(std::move(text));
}

void SaasConnector::send_session_stats(const std::string& session_id, float fps, float bitrate_kbps,
                                       float latency_ms, float packet_loss_pct, float uptime_sec) {
    send_json(session_stats_message(session_id, {.fps = fps,
                                                 .bitrate_kbps = bitrate_kbps,
                                                 .latency_ms = latency_ms,
                                                 .packet_loss_pct = packet_loss_pct,
                                                 .uptime_sec = uptime_sec}));
}

void SaasConnector::send_error(const std::string& code, const std::string& message,
                               const std::string& session_id) {
    std::string text = error_message(code, message, session_id);
    if (!session_id.empty()) {
        const MutexLock lock(cache_mutex_);
        final_messages_.store(session_id + "#err", text);
    }
    send_json(std::move(text));
}

void SaasConnector::clear_pending_session_ready() {
    const MutexLock lock(cache_mutex_);
    pending_session_ready_.clear();
}

std::string SaasConnector::redacted(std::string_view text, size_t max) const {
    return loggable(text, max, config_.agent_token);
}

}  // namespace ox
