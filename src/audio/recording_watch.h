#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace ox {

/// Watches which source a recording is attached to: when an output disappears, the server moves its
/// recordings to another source, perhaps a microphone. The move is announced before the new
/// source's first sound, so a buffer may be sent if a `poll` after its reading still finds a
/// monitor. One thread; never blocks.
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

    void watch(pid_t pid);

    Verdict poll();

    /// The server's default output; empty until known.
    [[nodiscard]] const std::string& default_sink() const;
    [[nodiscard]] std::string default_monitor() const {
        return default_sink().empty() ? "" : default_sink() + ".monitor";
    }

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace ox
