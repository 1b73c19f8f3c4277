#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/keys/key_leases.h"
#include "app/options.h"
#include "app/session/feedback_handler.h"
#include "app/session/frame_pacer.h"
#include "app/session/frame_phase.h"
#include "app/session/run_session.h"
#include "app/session/session_capture.h"
#include "app/session/session_media.h"
#include "app/sleep_inhibitor.h"
#include "control/tcp_control_server.h"
#include "input/input_receiver.h"
#include "scheduling/thread_priority.h"
#include "video/capture.h"
#include "video/video_encoder.h"

namespace ox {

/// One session: its parts in the order in which they come up, and the steps of its life. Lives on
/// the main thread for one `run_session`. A step that ends the session returns the reason.
class Session {
  public:
    Session(const Options& options, SessionRequest request);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    SessionEnd run(std::atomic<unsigned>& streamed_seconds);

  private:
    using MaybeEnd = std::optional<EndReason>;

    /// Totals at the last report to the board.
    struct MetricsSample {
        SteadyClock::time_point at;
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };

    // Set-up, in order.
    MaybeEnd set_up();
    MaybeEnd wait_for_launcher();
    MaybeEnd await_numbers();
    MaybeEnd open_media();
    void start_input();
    void start_control();
    MaybeEnd open_capture();
    MaybeEnd open_encoder();
    MaybeEnd start_stream();

    void prepare_media_ports();
    void handle_message(const ControlMessage& message);

    // The frame loop.
    MaybeEnd stream_frames();
    MaybeEnd stream_one_frame();
    void apply_bitrate_request();
    bool wait_for_next_frame();
    bool capture_picture();
    void run_periodic_tasks();
    void report_metrics(SteadyClock::time_point now);
    void report_to_platform(SteadyClock::time_point now);

    // A lost launcher.
    MaybeEnd hold_for_launcher();
    bool wait_for_reconnect();
    MaybeEnd resume_with_new_keys();

    // The end.
    [[nodiscard]] bool terminate_requested() const {
        return request_.terminate_requested != nullptr && *request_.terminate_requested;
    }
    [[nodiscard]] bool stop_requested() const;
    /// Why the session has to end although nothing failed, if it has to.
    [[nodiscard]] MaybeEnd requested_end() const;
    void log_summary(const SessionEnd& end) const;
    void tear_down();

    [[nodiscard]] uint16_t port(SessionPort which) const { return session_port(options_, which); }
    /// The platform's connector, when there is a session id to report under; else null.
    [[nodiscard]] SaasConnector* platform() const;
    [[nodiscard]] int64_t streamed_seconds() const;

    const Options& options_;
    SessionRequest request_;
    FeedbackHandler feedback_;
    std::atomic<bool> end_requested_{false};      ///< by the launcher
    std::atomic<uint32_t> requested_bitrate_{0};  ///< kbit/s, by the launcher; 0: none

    std::shared_ptr<StreamNumbers> numbers_;  ///< outlives `audio_`, whose thread uses it
    TcpControlServer control_;
    SessionVideo video_;
    SessionAudio audio_;
    InputReceiver input_;
    SessionCapture capture_;
    VideoEncoder encoder_;
    EncoderSettings settings_;
    RaisedThreads raised_{"Session"};      ///< this thread and the encoder's workers
    std::optional<SleepInhibitor> awake_;  ///< from the launcher's arrival on

    std::string launcher_;   ///< IPv4 address the media goes to; empty before the first handshake
    CapturedFrame picture_;  ///< the latest picture, encoded again when no new one comes
    EncodedFrame encoded_;
    FramePacer pacer_;
    FramePhase phase_;
    SteadyClock::time_point stream_start_{};
    MetricsSample sample_;
    SteadyClock::time_point platform_report_{};  ///< the last one
    uint64_t frames_ = 0;
};

}  // namespace ox
