#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "launcher/client/audio_receiver.h"
#include "launcher/client/media_socket.h"

namespace ox::launcher {

struct AudioSnapshot {
    AudioStats stream;
    uint64_t kernel_drops = 0;
    uint64_t frames_decoded = 0;
    uint64_t frames_concealed = 0;  ///< lost frames that the decoder made up
    uint64_t decode_errors = 0;
    double seconds = 0;  ///< of decoded sound
};

/// The sound's thread: receives and decodes. Sends probes until sound arrives, and again when it
/// pauses. Any thread may call `snapshot`.
class AudioWorker {
  public:
    /// Called on the worker's thread; may be empty.
    struct Sinks {
        std::function<void(const AudioFrame&)> frame;  ///< each frame, in order
        /// What AudioDecoder made of the frame and of those lost before it.
        std::function<void(std::span<const int16_t> pcm, const AudioFrame&)> samples;
    };

    /// `socket` outlives the worker, which alone uses it until `stop`.
    AudioWorker(MediaSocket& socket, std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                Sinks sinks);
    ~AudioWorker() { stop(); }
    AudioWorker(const AudioWorker&) = delete;
    AudioWorker& operator=(const AudioWorker&) = delete;

    /// False, with a text for the user in `error`, when there is no decoder.
    bool start(std::string& error);
    /// Ends the thread within one poll period (5 ms). Safe to call twice.
    void stop();

    [[nodiscard]] AudioSnapshot snapshot() const;

  private:
    void run(const std::stop_token& stop);
    void decode_frames();
    void publish_snapshot();

    MediaSocket& socket_;
    // The worker's thread's:
    AudioReceiver receiver_;
    AudioDecoder decoder_;
    const Sinks sinks_;
    uint64_t samples_ = 0;                                 ///< decoded, of both channels
    static constexpr uint64_t kEagerProbesUs = 5'000'000;  // many agents send no sound at all
    ProbeTimer probes_{kEagerProbesUs};

    mutable Mutex mutex_;
    AudioSnapshot snapshot_ OX_GUARDED_BY(mutex_);
    std::jthread thread_;
};

}  // namespace ox::launcher
