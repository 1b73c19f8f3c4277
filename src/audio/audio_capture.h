#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "audio/piped_child.h"
#include "base/clock.h"

namespace ox {

/// Records a source of the sound server with `parec`, as interleaved 16-bit PCM through a pipe.
/// Used by one thread at a time.
class AudioCapture {
  public:
    /// Polled every 50 ms while a sound server does not answer; true ends the wait and the start.
    void set_cancelled(std::function<bool()> cancelled) { cancelled_ = std::move(cancelled); }

    /// Name of the monitor of the default output; empty when there is none.
    [[nodiscard]] std::string default_monitor() const;

    /// Records `source` (empty: `default_monitor`, or parec's choice). False when not started.
    bool start(int sample_rate, int channels, const std::string& source, int latency_ms);

    /// There is data, or the recording has ended. False at the limit and after a stop request.
    bool wait_readable(std::chrono::milliseconds limit, const std::stop_token& stop);

    /// Fills `samples` with `frames` x channels samples. False at the end of the recording or after
    /// a read error (both are logged and end it), and within 10 ms of a stop request.
    bool read(std::vector<int16_t>& samples, size_t frames, const std::stop_token& stop);

    /// When the pipe was last seen empty since the previous call; 10 ms before new data at most.
    std::optional<SteadyClock::time_point> take_empty_time() { return std::exchange(empty_, {}); }

    void stop() { child_.stop(); }

    [[nodiscard]] const std::string& source() const { return source_; }
    [[nodiscard]] pid_t pid() const { return child_.pid(); }
    /// Buffers read since construction, and those with a sample beyond about -60 dBFS.
    [[nodiscard]] uint64_t buffers_read() const { return buffers_read_; }
    [[nodiscard]] uint64_t audible_buffers() const { return audible_buffers_; }

  private:
    [[nodiscard]] bool is_cancelled() const { return cancelled_ && cancelled_(); }
    bool start_recorder(const std::vector<std::string>& argv);
    bool wait_for_input(std::chrono::milliseconds limit, const std::stop_token& stop);
    bool read_bytes(uint8_t* bytes, size_t wanted, const std::stop_token& stop);

    PipedChild child_;
    std::optional<SteadyClock::time_point> empty_;
    int channels_ = 0;
    std::string source_;
    std::function<bool()> cancelled_;
    uint64_t buffers_read_ = 0;
    uint64_t audible_buffers_ = 0;
};

}  // namespace ox
