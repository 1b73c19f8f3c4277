#include "saas/saas_connector.h"

#include <pthread.h>
#include <sodium.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

#include "base/sleep.h"
#include "log/log.h"
#include "saas/log_text.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

/// TLS writes with plain `write`, which raises SIGPIPE on a connection that was reset.
void block_sigpipe() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

/// Lets `stop` reach the worker's transport while it lives.
class SaasConnector::PublishedTransport {
  public:
    explicit PublishedTransport(SaasConnector& owner)
        : owner_(owner), transport_(owner.running_, owner.timing_.transport) {
        const std::lock_guard lock(owner_.transport_mutex_);
        owner_.transport_ = &transport_;
        // A stop that has already looked found nothing to cut off.
        if (!owner_.running_) transport_.abort();
    }
    ~PublishedTransport() {
        transport_.close();
        const std::lock_guard lock(owner_.transport_mutex_);
        owner_.transport_ = nullptr;
        owner_.transport_gone_.notify_all();
    }
    PublishedTransport(const PublishedTransport&) = delete;
    PublishedTransport& operator=(const PublishedTransport&) = delete;

    Transport& operator*() noexcept { return transport_; }
    Transport* operator->() noexcept { return &transport_; }

  private:
    SaasConnector& owner_;
    Transport transport_;
};

SaasConnector::SaasConnector(SaasConfig config, ConnectorTiming timing)
    : config_(std::move(config)), timing_(timing), backoff_(timing.backoff) {}

SaasConnector::~SaasConnector() {
    stop();
}

void SaasConnector::set_prepare_session_callback(PrepareSession callback) {
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
    try {
        worker_ = std::thread([this] { run_loop(); });
    } catch (const std::system_error& error) {
        running_ = false;
        OX_ERROR("SaasConnector: cannot start the worker thread: %s", error.what());
    }
}

void SaasConnector::stop() {
    running_ = false;
    connected_ = false;
    queue_.wake();
    {
        std::unique_lock lock(transport_mutex_);
        transport_gone_.wait_for(lock, timing_.last_words,
                                 [this] { return transport_ == nullptr; });
        // The worker frees what is its own; this only makes its calls return.
        if (transport_) transport_->abort();
    }
    if (worker_.joinable()) worker_.join();
}

void SaasConnector::run_loop() {
    ::pthread_setname_np(::pthread_self(), "ox-saas");
    block_sigpipe();
    while (running_) {
        OX_INFO("SaasConnector: connecting to %s:%u%s", loggable(config_.host).c_str(),
                unsigned{config_.port}, config_.tls ? " (wss)" : " (ws)");
        bool handshaken = false;
        try {
            handshaken = connect_and_run();
        } catch (const std::exception& error) {
            OX_ERROR("SaasConnector: connection given up: %s", error.what());
        }
        connected_ = false;
        if (!running_) break;
        const milliseconds wait = after_connection(handshaken);
        sleep_until_or(SteadyClock::now() + wait, [this] { return !running_; });
    }
    OX_INFO("SaasConnector: stopped");
}

milliseconds SaasConnector::after_connection(bool handshaken) {
    report_link(LinkEvent::Lost);
    const milliseconds wait = backoff_.next_wait(handshaken, close_code_);
    if (close_code_ == kCloseReplaced) {
        report_link(LinkEvent::Replaced);
        OX_ERROR(
            "SaasConnector: another agent with the same server token connected (%s) and replaced "
            "this one - two agents must not share one server token; waiting %d s before "
            "reconnecting",
            close_reason_.empty() ? "close code 4009" : safe(close_reason_).c_str(),
            static_cast<int>(wait.count() / 1000));
    }
    close_code_ = 0;
    OX_WARN("SaasConnector: disconnected, retry in %dms", static_cast<int>(wait.count()));
    return wait;
}

bool SaasConnector::connect_and_run() {
    close_code_ = 0;
    close_reason_.clear();
    backend_pings_ = false;
    PublishedTransport transport(*this);
    if (!transport->open(config_.host, config_.port, config_.tls)) return false;
    WsLink link(*transport, config_.agent_token, timing_.link);
    const auto handshake = link.ws_handshake(config_.host, running_);
    if (handshake == WsLink::Handshake::TokenRefused) report_link(LinkEvent::TokenRefused);
    if (handshake != WsLink::Handshake::Accepted) return false;

    mark_connected();
    if (const size_t stale = queue_.take_all().size(); stale > 0) {
        OX_WARN("SaasConnector: discarding %zu stale queued messages on reconnect", stale);
    }
    send_register();
    resend_cached();
    const bool usable = serve(link);
    if (send_queued(link) && usable) transport->say_goodbye();
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
    const std::lock_guard lock(cache_mutex_);
    if (!pending_session_ready_.empty()) {
        OX_INFO("SaasConnector: re-sending cached session_ready");
        send_json(pending_session_ready_);
    }
    for (const auto& [key, entry] : terminal_cache_.entries()) {
        OX_INFO("SaasConnector: re-sending cached terminal message (%s)", safe(key).c_str());
        send_json(entry.text);
    }
}

/// False when the connection has to end, true when only the agent does.
bool SaasConnector::serve(WsLink& link) {
    auto heartbeat_at = SteadyClock::now();
    for (;;) {
        if (!send_queued(link)) return false;
        // Asked behind the queue, whose look takes the wake of a stop with it.
        if (!running_) return true;
        const auto now = SteadyClock::now();
        if (now - heartbeat_at > timing_.heartbeat) {
            do_heartbeat();
            heartbeat_at = now;
        }
        if (const auto silent = now - link.last_frame_at();
            backend_pings_ && silent > timing_.silence) {
            OX_WARN(
                "SaasConnector: nothing received for %lld ms although the backend pings - closing "
                "to reconnect",
                static_cast<long long>(std::chrono::floor<milliseconds>(silent).count()));
            return false;
        }
        if (link.frame_stalled()) {
            OX_WARN("SaasConnector: the rest of a frame did not come - closing");
            return false;
        }
        switch (link.wait(time_to_next_duty(link, heartbeat_at), queue_.wake_fd())) {
            case Transport::Wait::Ready:
                if (!receive(link)) return false;
                break;
            case Transport::Wait::TimedOut:
            case Transport::Wait::Woken:
                break;
            case Transport::Wait::Broken:
                return false;
        }
    }
}

milliseconds SaasConnector::time_to_next_duty(const WsLink& link,
                                              SteadyClock::time_point heartbeat_at) const {
    auto due = heartbeat_at + timing_.heartbeat;
    if (backend_pings_) due = std::min(due, link.last_frame_at() + timing_.silence);
    // One millisecond more, since both are due only once their time has passed.
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
        const std::lock_guard lock(cache_mutex_);
        pending_session_ready_ = text;
    }
    send_json(std::move(text));
}

void SaasConnector::send_session_ended(const std::string& session_id, const std::string& reason,
                                       uint32_t duration_sec) {
    std::string text = session_ended_message(session_id, reason, duration_sec);
    {
        const std::lock_guard lock(cache_mutex_);
        pending_session_ready_.clear();
        terminal_cache_.store(session_id, text);
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
        const std::lock_guard lock(cache_mutex_);
        terminal_cache_.store(session_id + "#err", text);
    }
    send_json(std::move(text));
}

void SaasConnector::clear_pending_session_ready() {
    const std::lock_guard lock(cache_mutex_);
    pending_session_ready_.clear();
}

std::string SaasConnector::safe(std::string_view text, size_t max) const {
    return loggable(text, max, config_.agent_token);
}

}  // namespace ox
