#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "audio/audio_packetizer.h"
#include "audio/monitor_source.h"
#include "base/clock.h"

namespace ox {

/// The sound of one session, on a thread of its own; reports every 5 s. A new start continues the
/// sequence numbers, so that no nonce repeats under one key.
class AudioStream {
  public:
    AudioStream() = default;
    ~AudioStream();
    AudioStream(const AudioStream&) = delete;
    AudioStream& operator=(const AudioStream&) = delete;

    // Before `start`; see AudioPacketizer and MonitorSource.
    void set_parity_enabled(bool enabled) { packetizer_.set_parity_enabled(enabled); }
    void set_numbers(PacketNumbers& numbers) { packetizer_.set_numbers(numbers); }
    void set_cancelled(std::function<bool()> cancelled) {
        source_.set_cancelled(std::move(cancelled));
    }

    /// `sender` is open and outlives the run; the key has 32 bytes. False, after an error line,
    /// with nothing left running.
    bool start(UdpSender& sender, const uint8_t* key, size_t key_length, int sample_rate,
               int channels, int bitrate_bps);

    /// Ends the thread (within about 100 ms) and the recording. Safe to call twice.
    void stop();

    [[nodiscard]] bool running() const { return running_; }

  private:
    void loop(const std::stop_token& stop);
    bool process_frame(const std::stop_token& stop);
    void report_if_due();

    // The audio thread's while it runs, else the owner's.
    MonitorSource source_;
    AudioPacketizer packetizer_;
    std::vector<int16_t> pcm_;
    SteadyClock::time_point last_report_{};
    uint64_t reported_buffers_ = 0;
    uint64_t reported_audible_ = 0;

    std::atomic<bool> running_{false};
    std::jthread thread_;
};

}  // namespace ox
