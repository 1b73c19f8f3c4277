#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audio/piped_child.h"
#include "base/clock.h"

namespace ox {

/// Records what the PC plays: `parec` on the monitor of the default output, as interleaved 16-bit
/// PCM through a pipe. Used by one thread, but for `stop`, `request_stop` and the counters.
class AudioCapture {
  public:
    /// Once `cancelled` returns true, a wait for a sound server that does not answer ends within
    /// 50 ms, and nothing is started any more. Asked by the thread that starts; set before that.
    void set_cancelled(std::function<bool()> cancelled) { cancelled_ = std::move(cancelled); }

    /// Name of the monitor of the default output, or empty when there is none to be found.
    [[nodiscard]] std::string default_monitor() const;

    /// Starts recording from `source` (empty: the default output's monitor, or parec's own choice
    /// when that is not known), ending an earlier recording. False when there is nothing to start.
    bool start(int sample_rate, int channels, const std::string& source, int latency_ms);

    /// True when there is something to read within `limit`, or nothing to be expected; false at the
    /// limit and after `request_stop`.
    bool wait_readable(std::chrono::milliseconds limit);

    /// Fills `samples` with exactly `frames` x channels samples, or fails: end of the recording, a
    /// read error (both logged, both stop the recording), or `request_stop` (within 100 ms).
    bool read(std::vector<int16_t>& samples, size_t frames);

    /// When the recorder was last seen to have nothing to read, since the last call; none when all
    /// that was read lay there already. At most 10 ms before there was something again, unless the
    /// reading thread was held up.
    std::optional<SteadyClock::time_point> take_dry_time() { return std::exchange(dry_, {}); }

    /// The loudness meter: one buffer of `count` samples. `read` calls it.
    void note_energy(const int16_t* samples, size_t count);

    /// Ends a blocked `read` soon, and every later one until the next `start`. Any thread; nothing
    /// is closed.
    void request_stop() { stopping_ = true; }

    /// Ends a blocked `read`, without a complaint, and the recording. Any thread. Safe to call
    /// twice.
    void stop();

    [[nodiscard]] const std::string& source() const { return source_; }
    [[nodiscard]] pid_t pid() const;
    [[nodiscard]] uint64_t frames_read() const { return frames_read_; }
    [[nodiscard]] uint64_t audible_frames() const { return audible_frames_; }

  private:
    [[nodiscard]] bool is_cancelled() const { return cancelled_ && cancelled_(); }
    bool start_recorder(const std::vector<std::string>& argv);
    bool wait_for_input(std::chrono::milliseconds limit);
    bool fill(uint8_t* bytes, size_t wanted);

    mutable std::mutex child_mutex_;
    PipedChild child_;  ///< guarded by child_mutex_, which a reader holds while it waits
    std::optional<SteadyClock::time_point> dry_;
    int channels_ = 0;
    std::string source_;
    std::function<bool()> cancelled_;
    std::atomic<bool> stopping_{false};
    std::atomic<uint64_t> frames_read_{0};     ///< buffers that went through the meter
    std::atomic<uint64_t> audible_frames_{0};  ///< those with a sample beyond about -60 dBFS
};

}  // namespace ox
