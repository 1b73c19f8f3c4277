#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "base/mutex.h"
#include "saas/outgoing_messages.h"
#include "saas/platform_messages.h"
#include "saas/reconnect_backoff.h"
#include "saas/redaction.h"
#include "saas/saas_config.h"
#include "saas/system_info.h"
#include "saas/tcp_connection.h"
#include "saas/ws_link.h"

namespace ox {

/// Periods and time limits of the link. The defaults are the program's; tests shorten them.
struct ConnectorTiming {
    ReconnectBackoff::Limits backoff{};
    TcpConnection::Limits connection{};
    WsLink::Limits link{};
    std::chrono::milliseconds heartbeat{10'000};
    /// Without a frame for this long the link counts as dead, if the backend sends pings.
    std::chrono::milliseconds silence{20'000};
    /// How long `stop` lets the worker send what is queued.
    std::chrono::milliseconds drain_timeout{500};
};

enum class LinkEvent : uint8_t {
    Connected,     ///< the WebSocket handshake is complete
    Lost,          ///< a connection has ended, or could not be made
    TokenRefused,  ///< the backend does not know the agent's token
    Replaced,      ///< another agent has connected with the same token; reported after `Lost`
};

/// Keeps the agent connected: a worker registers, sends what is queued, answers pings, calls back
/// with requests and reconnects. Any thread may call `send_*`, which only queue, one the
/// rest. What was queued without a link is dropped at the next connection; a session's readiness,
/// end and errors are repeated. Nothing throws.
class SaasConnector {
  public:
    using PrepareSessionCallback = std::function<void(PrepareSessionParams&&)>;
    /// Session id (may be empty) and reason.
    using TerminateSessionCallback = std::function<void(const std::string&, const std::string&)>;
    using LinkCallback = std::function<void(LinkEvent)>;

    explicit SaasConnector(SaasConfig config, ConnectorTiming timing = {});
    ~SaasConnector();
    SaasConnector(const SaasConnector&) = delete;
    SaasConnector& operator=(const SaasConnector&) = delete;

    /// All before `start`. They run on the worker and hold the link up.
    void set_prepare_session_callback(PrepareSessionCallback callback);
    void set_terminate_session_callback(TerminateSessionCallback callback);
    void set_link_callback(LinkCallback callback);

    /// Starts the worker. Calling it while a worker exists ends the process.
    void start();

    /// Sends what is queued, within `drain_timeout`, and joins the worker. May be called again.
    void stop();

    /// There is a link with a completed handshake.
    [[nodiscard]] bool connected() const noexcept { return connected_; }

    void send_session_ready(const std::string& session_id, const std::string& public_ip,
                            uint16_t video_port, uint16_t audio_port, uint16_t input_port);
    void send_session_ended(const std::string& session_id, const std::string& reason,
                            uint32_t duration_sec);
    void send_session_stats(const std::string& session_id, float fps, float bitrate_kbps,
                            float latency_ms, float packet_loss_pct, float uptime_sec);
    /// `session_id` may be empty.
    void send_error(const std::string& code, const std::string& message,
                    const std::string& session_id);

    /// Drops the readiness that would be sent again after a reconnect.
    void clear_pending_session_ready();

  private:
    class PublishedConnection;
    enum class ServeEnd : uint8_t { Stopped, Broken };

    void run_loop();
    void report_link(LinkEvent event);
    /// True when the handshake was completed.
    bool run_connection();
    std::chrono::milliseconds after_disconnect(bool handshaken);
    void mark_connected();
    ServeEnd serve(WsLink& link);
    bool is_dead(const WsLink& link) const;
    bool send_queued(WsLink& link);
    bool receive(WsLink& link);
    std::chrono::milliseconds poll_timeout(const WsLink& link,
                                           SteadyClock::time_point heartbeat_at) const;
    void resend_cached();

    void send_json(std::string text);
    void send_register();
    void do_heartbeat();
    void handle_message(const std::string& text);
    void handle_prepare(PrepareSessionParams params, const std::string& text);
    void log_bad_message(const BadMessage& bad, const std::string& text) const;
    /// Foreign text for the log, without the agent's token.
    [[nodiscard]] std::string redacted(std::string_view text, size_t max = kMaxLoggedText) const;

    const SaasConfig config_;
    const ConnectorTiming timing_;
    PrepareSessionCallback prepare_session_;
    TerminateSessionCallback terminate_session_;
    LinkCallback link_changed_;

    std::atomic<bool> running_{false};
    std::atomic<bool> connected_{false};
    std::jthread worker_;

    OutgoingQueue queue_;

    Mutex cache_mutex_;  ///< locked before the queue's own mutex
    std::string pending_session_ready_ OX_GUARDED_BY(cache_mutex_);
    FinalMessageCache final_messages_ OX_GUARDED_BY(cache_mutex_);

    Mutex connection_mutex_;
    std::condition_variable connection_gone_;
    /// Null between connections.
    TcpConnection* connection_ OX_GUARDED_BY(connection_mutex_) = nullptr;

    // The worker's own.
    LoadProbe load_probe_;
    ReconnectBackoff backoff_;
    bool backend_pings_ = false;
    uint16_t close_code_ = 0;
    std::string close_reason_;
};

}  // namespace ox
