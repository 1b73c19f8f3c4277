#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace ox {

/// Watches, from outside, what a recording process is attached to at the sound server. When an
/// output disappears, the server moves its recordings to another source, which may be a microphone;
/// nothing of that may be sent. A recording that no server knows, of a server out of reach or by a
/// recorder that hides behind another process, is nobody's to watch.
///
/// The server tells of a move before it delivers the first sound from the new source. So a buffer
/// may go out if, after it was read, `poll` has taken in everything the server had to say and still
/// finds the recording on a monitor. Used by one thread; `poll` never blocks.
class RecordingWatch {
  public:
    enum class Verdict {
        Unknown,         ///< not known (yet, or again): send nothing
        Unwatched,       ///< no server answers, or none knows this recording
        OnMonitor,       ///< records an output's monitor
        Elsewhere,       ///< records something that is no monitor
        DefaultChanged,  ///< records a monitor, but the default output is another one now
    };

    RecordingWatch();
    ~RecordingWatch();
    RecordingWatch(const RecordingWatch&) = delete;
    RecordingWatch& operator=(const RecordingWatch&) = delete;

    /// Watches the recording of the process `pid` from now on.
    void watch(pid_t pid);

    /// Takes in what the server has said since, without waiting for more.
    Verdict poll();

    /// Output that the server calls the default one; empty until it is known.
    [[nodiscard]] const std::string& default_sink() const;
    /// Name of its monitor, or empty.
    [[nodiscard]] std::string default_monitor() const {
        return default_sink().empty() ? "" : default_sink() + ".monitor";
    }

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace ox
