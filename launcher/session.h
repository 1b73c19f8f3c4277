#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.h"
#include "launcher/audio_worker.h"
#include "launcher/control_client.h"
#include "launcher/decode_worker.h"
#include "launcher/frame_queue.h"
#include "launcher/input_channel.h"
#include "launcher/input_script.h"
#include "launcher/media_socket.h"
#include "launcher/options.h"
#include "launcher/progress_meter.h"
#include "launcher/receive_worker.h"
#include "launcher/summary.h"

namespace ox::launcher {

/// One session with an agent, from the connection to the summary. The owner's thread drives it; a
/// receiving, a decoding, a control and, with sound, an audio thread work below it and are gone
/// when `run` returns.
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
    bool connect_audio();
    void stream();
    /// Ends the loop of `stream` when something is over; true = go on.
    bool check(const ReceiveSnapshot& receive, SteadyClock::time_point now);
    void send_due_requests(double media_seconds);
    void send_due_input(double media_seconds);
    void ask_for_keyframe(const KeyframeRequest& request);
    /// Tells agent and user how it goes. False when nothing that comes can be decoded.
    bool report(const ReceiveSnapshot& receive);
    void finish();
    void conclude();
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
    FrameQueue queue_;
    DecodeWorker decode_;
    std::optional<ReceiveWorker> receive_;
    std::optional<AudioWorker> audio_;

    ProgressMeter meter_;
    SteadyClock::time_point media_deadline_;
    uint64_t last_packets_ = 0;  ///< at the last move of `media_deadline_`
    size_t next_bitrate_change_ = 0;
    double next_idr_s_ = 0;
};

}  // namespace ox::launcher
