#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "saas/load_probe.h"
#include "saas/log_text.h"
#include "saas/outgoing_queue.h"
#include "saas/platform_messages.h"
#include "saas/reconnect_backoff.h"
#include "saas/saas_config.h"
#include "saas/terminal_cache.h"
#include "saas/transport.h"
#include "saas/ws_link.h"

namespace ox {

/// The periods and bounds of the link. The defaults are the program's; tests shorten them.
struct ConnectorTiming {
    ReconnectBackoff::Limits backoff{};
    Transport::Limits transport{};
    WsLink::Limits link{};
    std::chrono::milliseconds heartbeat{10'000};
    /// Without a frame for this long the link is dead, if the backend is one that pings.
    std::chrono::milliseconds silence{20'000};
    /// How long `stop` lets the worker send what is still queued.
    std::chrono::milliseconds last_words{500};
};

/// What becomes of the link to the platform.
enum class LinkEvent : uint8_t {
    Connected,     ///< the WebSocket handshake is complete
    Lost,          ///< a connection has ended, or an attempt at one has failed
    TokenRefused,  ///< the backend does not know the agent's token
    Replaced,      ///< another agent has connected with the same token; comes after `Lost`
};

/// Keeps the agent attached to the platform: one worker thread connects, registers, sends what is
/// queued, answers pings, hands over the backend's requests and reconnects when the link is lost.
///
/// Made, started, stopped and destroyed by the main thread; the sending operations may be called
/// from any thread at any time. They only queue: what is queued while there is no link is dropped
/// at the next connection, and a session's readiness, its end and its errors are told again then.
/// Nothing here throws.
class SaasConnector {
  public:
    using PrepareSession = std::function<void(PrepareSessionParams&&)>;
    /// Session id (may be empty) and reason.
    using TerminateSessionCallback = std::function<void(const std::string&, const std::string&)>;
    using LinkCallback = std::function<void(LinkEvent)>;

    explicit SaasConnector(SaasConfig config, ConnectorTiming timing = {});
    ~SaasConnector();
    SaasConnector(const SaasConnector&) = delete;
    SaasConnector& operator=(const SaasConnector&) = delete;

    /// All before `start`. They run on the worker: the link is not served while they do.
    void set_prepare_session_callback(PrepareSession callback);
    void set_terminate_session_callback(TerminateSessionCallback callback);
    void set_link_callback(LinkCallback callback);

    /// Starts the worker. Calling it while a worker exists ends the process.
    void start();

    /// Gives the worker a moment to send what is queued (that a session has ended because of this
    /// very stop, for instance), cuts the connection and joins the worker. May be called again.
    void stop();

    /// A link with a completed handshake is up.
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

    /// Forgets the readiness that would be told again after a reconnect.
    void clear_pending_session_ready();

  private:
    class PublishedTransport;

    void run_loop();
    void report_link(LinkEvent event);
    std::chrono::milliseconds after_connection(bool handshaken);
    bool connect_and_run();
    void mark_connected();
    bool serve(WsLink& link);
    bool send_queued(WsLink& link);
    bool receive(WsLink& link);
    std::chrono::milliseconds time_to_next_duty(const WsLink& link,
                                                SteadyClock::time_point heartbeat_at) const;
    void resend_cached();

    void send_json(std::string text);
    void send_register();
    void do_heartbeat();
    void handle_message(const std::string& text);
    void prepare(PrepareSessionParams params, const std::string& text);
    void report(const BadMessage& bad, const std::string& text) const;
    /// `text` from outside as it may be logged.
    [[nodiscard]] std::string safe(std::string_view text, size_t max = kMaxLoggedText) const;

    const SaasConfig config_;
    const ConnectorTiming timing_;
    PrepareSession prepare_session_;
    TerminateSessionCallback terminate_session_;
    LinkCallback link_changed_;

    std::atomic<bool> running_{false};
    std::atomic<bool> connected_{false};
    std::thread worker_;

    OutgoingQueue queue_;

    std::mutex cache_mutex_;  ///< taken before the queue's own lock where both are needed
    std::string pending_session_ready_;  ///< guarded by `cache_mutex_`
    TerminalCache terminal_cache_;       ///< guarded by `cache_mutex_`

    std::mutex transport_mutex_;
    std::condition_variable transport_gone_;
    Transport* transport_ = nullptr;  ///< guarded by `transport_mutex_`; null between connections

    // The worker's own.
    LoadProbe load_probe_;
    ReconnectBackoff backoff_;
    bool backend_pings_ = false;
    uint16_t close_code_ = 0;
    std::string close_reason_;
};

}  // namespace ox
