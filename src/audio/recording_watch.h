#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace ox {

/// Watches which source a recording process is attached to at the sound server. When an output
/// disappears, the server moves its recordings to another source, which may be a microphone.
///
/// The server announces a move before it delivers the first sound from the new source. So a buffer
/// may be sent if `poll`, called after the buffer was read, still finds the recording on a monitor.
/// Used by one thread; `poll` never blocks.
class RecordingWatch {
  public:
    enum class Verdict {
        Unknown,         ///< a reply is awaited: send nothing
        Unwatched,       ///< no server is reachable, or it does not know this recording
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

    /// Processes the server's messages received so far.
    Verdict poll();

    /// The server's default output; empty until known.
    [[nodiscard]] const std::string& default_sink() const;
    /// Its monitor, or empty.
    [[nodiscard]] std::string default_monitor() const {
        return default_sink().empty() ? "" : default_sink() + ".monitor";
    }

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace ox
