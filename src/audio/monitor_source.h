#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "audio/audio_capture.h"
#include "audio/live_edge.h"
#include "audio/recording_watch.h"

namespace ox {

/// The sound of the PC's default output, also after it changes. Discards what may come from another
/// source, such as a microphone that the server moved the recording to. One thread at a time.
class MonitorSource {
  public:
    void set_cancelled(std::function<bool()> cancelled) {
        capture_.set_cancelled(std::move(cancelled));
    }

    bool open(int sample_rate, int channels);
    void close() { capture_.stop(); }

    enum class Frame : uint8_t {
        Live,     ///< `pcm` holds a frame that may be sent
        Dropped,  ///< nothing to send: no sound yet, a late frame, or not known to be the output's
        Ended,    ///< the recording has ended, or a stop was requested
    };
    /// Waits up to 100 ms for a frame; the first time also up to 500 ms for the recording's name.
    Frame read(std::vector<int16_t>& pcm, size_t samples, const std::stop_token& stop);

    /// Name of the recorded source, "default" when parec chose it.
    [[nodiscard]] const char* name() const {
        return capture_.source().empty() ? "default" : capture_.source().c_str();
    }
    [[nodiscard]] uint64_t buffers_read() const { return capture_.buffers_read(); }
    [[nodiscard]] uint64_t audible_buffers() const { return capture_.audible_buffers(); }

  private:
    RecordingWatch::Verdict wait_for_verdict(const std::stop_token& stop,
                                             std::chrono::milliseconds limit);
    bool ensure_monitor_source(const std::stop_token& stop);
    bool ensure_known_source(const std::stop_token& stop);
    bool reopen(const std::stop_token& stop);

    AudioCapture capture_;
    RecordingWatch watch_;
    LiveEdge live_edge_;
    int sample_rate_ = 0;
    int channels_ = 0;
    SteadyClock::time_point next_reopen_{};
    bool first_read_ = true;
    bool server_slow_ = false;      ///< the last verdict did not come in time
    bool warned_unknown_ = false;   ///< that nobody can say what is recorded
    bool warned_moved_ = false;     ///< that the recording is off the monitor; until it is back
    std::string followed_default_;  ///< default output that the recording was reopened for
};

}  // namespace ox
