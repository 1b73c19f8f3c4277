#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "audio/audio_capture.h"
#include "audio/audio_encoder.h"
#include "audio/live_edge.h"
#include "audio/parity_block.h"
#include "audio/recording_watch.h"
#include "transport/encryption.h"
#include "transport/outgoing_packet.h"
#include "transport/packet_numbers.h"

namespace ox {

class UdpSender;

/// The sound of one session: a thread that records, encodes, seals and sends 5 ms frames. What is
/// known to come from anything but an output's monitor is never sent. The owner starts and stops
/// it; a new start goes on with the sequence numbers of the last one, so that no nonce comes twice
/// under one key, and the stream ends when there are none left.
class AudioStream {
  public:
    AudioStream() = default;
    ~AudioStream();
    AudioStream(const AudioStream&) = delete;
    AudioStream& operator=(const AudioStream&) = delete;

    /// Whether blocks of four frames get repair symbols. Before `start`.
    void set_parity_enabled(bool enabled) { parity_enabled_ = enabled; }
    /// Where the sequence numbers come from; outlives the stream. Without it they count from 0.
    /// Before `start`.
    void set_numbers(PacketNumbers& numbers) { numbers_ = &numbers; }
    /// Asked, by any thread, whether to go on waiting for the sound server. Before `start`.
    void set_cancelled(std::function<bool()> cancelled) {
        capture_.set_cancelled(std::move(cancelled));
    }

    /// Starts streaming through `sender`, which must be open and outlive the stream's run. The key
    /// is 32 bytes. False, after an error line, when something cannot be had; nothing is left
    /// running.
    bool start(UdpSender& sender, const uint8_t* key, size_t key_length, int sample_rate,
               int channels, int bitrate_bps);

    /// Ends the thread (within about 100 ms) and the recording. Safe to call twice.
    void stop();

    [[nodiscard]] bool running() const { return running_; }

  private:
    bool check_start(const UdpSender& sender, const uint8_t* key, size_t key_length);
    void loop(const std::stop_token& stop);
    RecordingWatch::Verdict settled_verdict(const std::stop_token& stop,
                                            std::chrono::milliseconds limit);
    bool handle_buffer(const std::stop_token& stop);
    bool recording_is_safe(const std::stop_token& stop);
    bool is_named_or_reopened(const std::stop_token& stop);
    bool reopen_capture(const std::stop_token& stop);
    bool send_frame();
    bool send_data_packet(uint32_t sequence, uint64_t timestamp);
    void finish_block();
    void send_parity_block(uint32_t base);
    void reset_parity_block() { block_.reset(); }
    bool seal_and_send();
    void report();
    [[nodiscard]] const char* source_name() const;

    AudioCapture capture_;
    AudioEncoder encoder_;
    Encryption encryption_;
    RecordingWatch watch_;
    LiveEdge live_edge_;
    ParityBlock block_;
    std::jthread thread_;
    std::atomic<bool> running_{false};
    bool parity_enabled_ = false;
    UdpSender* sender_ = nullptr;
    int sample_rate_ = 0;
    int channels_ = 0;
    PacketNumbers own_numbers_;
    PacketNumbers* numbers_ = &own_numbers_;

    // The audio thread's own.
    std::vector<int16_t> pcm_;
    std::vector<uint8_t> opus_;
    OutgoingPacket packet_;
    ParityBlock::Shards shards_;
    SteadyClock::time_point last_report_{};
    SteadyClock::time_point next_reopen_{};
    uint64_t reported_frames_ = 0;
    uint64_t reported_audible_ = 0;
    bool unknown_ = false;       ///< the server did not answer in time
    bool refused_ = false;       ///< nobody knows what is recorded, and a warning has said so
    bool moved_ = false;         ///< the recording is off the monitor, and a warning has said so
    std::string followed_sink_;  ///< default output for which the recording was started anew

    std::atomic<uint64_t> sent_{0};
    std::atomic<uint64_t> silent_intervals_{0};
    std::atomic<uint64_t> errors_{0};
    std::atomic<uint64_t> parity_blocks_{0};
    std::atomic<uint64_t> parity_symbols_{0};
    std::atomic<uint64_t> skipped_blocks_{0};
    std::atomic<uint64_t> parity_errors_{0};
};

}  // namespace ox
