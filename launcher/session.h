#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.h"
#include "launcher/client/audio_worker.h"
#include "launcher/client/control_client.h"
#include "launcher/client/input_channel.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/video_workers.h"
#include "launcher/input_script.h"
#include "launcher/options.h"
#include "launcher/report.h"
#include "launcher/session_outputs.h"

namespace ox::launcher {

/// One session with an agent, on the owner's thread; its threads have ended when `run` returns.
class Session {
  public:
    using StopPredicate = std::function<bool()>;
    /// Called about once a second while media is expected, on the owner's thread.
    using ProgressSink = std::function<void(const Progress&)>;

    Session(const Options& options, StopPredicate stop, ProgressSink progress);

    /// Runs to its end: the wanted seconds, `stop`, or a failure. Takes at most the two timeouts
    /// and about two seconds beyond the streaming time.
    Summary run();

  private:
    bool open_outputs();
    bool connect();
    bool start_media();
    bool start_audio();
    void stream();
    /// False when streaming is over: stopped, long enough or failed.
    bool may_continue(const ReceiveSnapshot& receive, SteadyClock::time_point now);
    void send_due_requests(double media_seconds);
    void send_due_input(double media_seconds);
    void request_keyframe(const KeyframeRequest& request);
    /// Sends statistics to the agent, shows progress. False when nothing can be decoded.
    bool report(const ReceiveSnapshot& receive);
    void finish();
    void fail(ExitStatus status, std::string error);

    const Options options_;
    const StopPredicate stop_;
    const ProgressSink progress_;

    Summary summary_;
    MediaSocket socket_;
    MediaSocket audio_socket_;
    ControlClient control_;
    InputChannel input_;
    std::vector<InputStep> input_steps_;
    size_t next_input_step_ = 0;
    SessionOutputs outputs_;
    FrameQueue queue_;
    DecodeWorker decode_;
    std::optional<ReceiveWorker> receive_;
    std::optional<AudioWorker> audio_;

    ProgressMeter meter_;
    SteadyClock::time_point media_deadline_;
    uint64_t last_packets_ = 0;  ///< when `media_deadline_` was set
    size_t next_bitrate_change_ = 0;
    double next_idr_s_ = 0;
};

}  // namespace ox::launcher
