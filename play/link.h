#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "launcher/client/audio_worker.h"
#include "launcher/client/control_client.h"
#include "launcher/client/input_channel.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/progress.h"
#include "launcher/client/video_workers.h"
#include "play/bitrate/bitrate_controller.h"
#include "play/bitrate/path_meter.h"
#include "play/clock_offset.h"
#include "play/options.h"
#include "play/picture_slot.h"
#include "scheduling/thread_priority.h"

namespace ox::play {

enum class LinkState : uint8_t {
    Connecting,
    Starting,  ///< connected, no picture yet
    Playing,
    Silent,  ///< connected, but no media comes
    Lost,    ///< the connection broke; connecting again until `LinkStatus::deadline`
    Ended,
};

struct LinkStatus {
    LinkState state = LinkState::Connecting;
    SteadyClock::time_point deadline{};  ///< of Lost
    ExitStatus exit = ExitStatus::Ok;    ///< of Ended
    std::string error;                   ///< of Ended: one English line, empty when all went well
    bool ended_by_host = false;          ///< of HostEnded; else it did not come back
    // For the statistics:
    launcher::Progress progress;
    uint64_t frames_decoded = 0;
    const char* decoder = "";
    double decode_ms = 0;  ///< per picture, in the last period
    int32_t bitrate_kbps = 0;
    ClockOffset clock;
};

/// The network side of a session: connects, receives and decodes on threads of its own, reports to
/// the agent, and connects again when the connection is lost. Any thread may call the public
/// functions; `start` and `stop` belong to the owner.
class Link {
  public:
    struct Sinks {
        /// A picture was put into the slot, or the status has changed. Any thread.
        std::function<void()> wake;
        /// As AudioWorker::Sinks::samples; empty: no sound is wanted.
        std::function<void(std::span<const int16_t> pcm, const launcher::AudioFrame&)> sound;
    };

    /// `options` with the picture size and the token filled in.
    Link(const Options& options, PictureSlot& pictures, Sinks sinks);
    ~Link() { stop(); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void start();
    /// Ends the session. Takes about 1.5 s at most.
    void stop();

    [[nodiscard]] LinkStatus status() const;
    /// Opened while a session runs, then and again.
    [[nodiscard]] launcher::InputChannel& input() { return input_; }

  private:
    /// How a stretch of streaming ended.
    enum class Outcome : uint8_t { Stopped, HostEnded, Broken, Silent, Failed };

    void run();
    bool prepare();
    launcher::ConnectResult connect(SteadyClock::time_point deadline);
    bool start_media();
    void stop_media();
    Outcome stream();
    std::optional<Outcome> check(const launcher::ReceiveSnapshot& receive);
    void fail_without_picture(const launcher::ReceiveStats& stream);
    void report(const launcher::ReceiveSnapshot& receive);
    void adapt_bitrate();
    bool reconnect(Outcome why);
    void request_keyframe(const launcher::KeyframeRequest& request);
    void on_picture(const launcher::DecodedPicture& picture);
    bool is_fit(const launcher::DecodedPicture& picture);
    launcher::DecodeWorker::Sinks decode_sinks();
    void set_state(LinkState state, SteadyClock::time_point deadline = {});
    void end(ExitStatus exit, std::string error = {}, bool ended_by_host = false);
    [[nodiscard]] bool stopping() const { return stopping_; }

    const Options options_;
    PictureSlot& pictures_;
    const Sinks sinks_;
    std::atomic<bool> stopping_{false};

    launcher::InputChannel input_;
    // The decoding thread's:
    uint64_t damaged_since_us_ = 0;  ///< 0: the last picture was intact
    std::optional<RaisedThreads> raised_;
    std::vector<pid_t> other_threads_;  ///< all but the decoder's and the receivers'
    std::atomic<bool> raise_due_{false};
    // The link's thread's:
    launcher::MediaSocket video_socket_;
    launcher::MediaSocket audio_socket_;
    launcher::ControlClient control_;
    launcher::FrameQueue queue_;
    launcher::DecodeWorker decode_;
    std::optional<launcher::ReceiveWorker> receive_;
    std::optional<launcher::AudioWorker> audio_;
    launcher::ProgressMeter meter_;
    SteadyClock::time_point first_picture_deadline_{};
    uint64_t frames_before_ = 0;  ///< decoded before this connection
    uint64_t frames_lost_ = 0;    ///< before this connection
    uint64_t decode_errors_ = 0;  ///< that a keyframe was requested for
    SteadyClock::time_point next_request_{};
    uint64_t decoding_us_ = 0;                     ///< at the last report
    uint64_t frames_decoded_ = 0;                  ///< likewise
    PathMeter path_;                               ///< also the receiving thread's
    std::optional<BitrateController> controller_;  ///< with an automatic bitrate
    int32_t bitrate_kbps_;
    double decode_ms_ = 0;

    mutable Mutex mutex_;
    LinkStatus status_ OX_GUARDED_BY(mutex_);
    std::jthread thread_;
};

}  // namespace ox::play
