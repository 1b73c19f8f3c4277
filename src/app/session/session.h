#pragma once

#include <optional>
#include <string>

#include "app/keys/key_leases.h"
#include "app/options.h"
#include "app/session/feedback_handler.h"
#include "app/session/frame_pacer.h"
#include "app/session/frame_phase.h"
#include "app/session/keyframe_policy.h"
#include "app/session/media_stream.h"
#include "app/session/run_session.h"
#include "app/session/session_audio.h"
#include "app/session/session_capture.h"
#include "app/session/session_signals.h"
#include "app/sleep_inhibitor.h"
#include "control/tcp_control_server.h"
#include "input/input_receiver.h"
#include "scheduling/thread_priority.h"
#include "video/capture.h"
#include "video/video_encoder.h"

namespace ox {

/// One session: its parts in the order in which they come up, and the steps of its life. Lives on
/// the main thread for one `run_session`.
class Session {
  public:
    Session(const Options& options, SessionRequest request);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Runs the session to its end.
    SessionEnd run(std::atomic<unsigned>& streamed_seconds);

  private:
    /// Frames and bytes at the last report to the board.
    struct FigureMark {
        SteadyClock::time_point at;
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };

    void lease_numbers();
    // Set-up, in order. Each returns an end reason, empty when it worked.
    std::string wait_for_launcher();
    std::string take_numbers();
    std::string open_media();
    void expect_media_probes();
    void start_input();
    void start_control();
    std::string open_capture();
    std::string open_encoder();
    std::string announce_stream();
    std::string set_up();

    // The frame loop.
    std::string stream_frames();
    std::string stream_one_frame();
    bool wait_for_next_frame();
    void apply_requests();
    bool capture_picture();
    void report_figures();
    void report_to_platform();

    // A lost launcher.
    std::string hold_for_launcher();
    bool wait_for_reconnect();
    std::string resume_with_new_keys();

    // The end.
    [[nodiscard]] bool stop_requested() const;
    [[nodiscard]] bool leave_requested() const;
    [[nodiscard]] std::string end_reason(const std::string& loop_reason) const;
    void log_summary(const std::string& reason) const;
    void tear_down();

    [[nodiscard]] uint16_t port(int offset) const;
    [[nodiscard]] uint16_t control_port() const;
    /// The platform's connector, when there is a session id to report under; else null.
    [[nodiscard]] SaasConnector* platform() const;
    [[nodiscard]] int64_t streamed_seconds() const;

    const Options& options_;
    SessionRequest request_;
    SessionSignals signals_;
    FeedbackHandler feedback_{signals_};

    std::shared_ptr<StreamNumbers> numbers_;  ///< outlives the sound, which takes from it
    TcpControlServer control_;
    MediaStream video_;
    SessionAudio audio_;
    InputReceiver input_;
    SessionCapture capture_;
    VideoEncoder encoder_;
    EncoderSettings settings_;
    RaisedThreads raised_{"Session"};      ///< this thread and the encoder's workers
    std::optional<SleepInhibitor> awake_;  ///< from the launcher's arrival on

    std::string launcher_;   ///< IPv4 address the media goes to
    CapturedFrame picture_;  ///< the latest picture, encoded again when no new one comes
    EncodedFrame encoded_;
    KeyframePolicy keyframes_;
    FramePacer pacer_;
    FramePhase phase_;
    SteadyClock::time_point stream_start_{};
    FigureMark mark_;
    SteadyClock::time_point platform_report_{};  ///< the last one
    uint64_t frames_ = 0;
};

}  // namespace ox
