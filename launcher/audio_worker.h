#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "launcher/audio_decoder.h"
#include "launcher/audio_receiver.h"
#include "launcher/media_socket.h"
#include "launcher/probe_timer.h"
#include "launcher/tone_meter.h"

namespace ox::launcher {

/// What the sound has been so far.
struct AudioSnapshot {
    AudioStats stream;
    uint64_t kernel_drops = 0;
    uint64_t frames_decoded = 0;
    uint64_t frames_concealed = 0;  ///< lost ones that the decoder made up
    uint64_t decode_errors = 0;
    double seconds = 0;  ///< of decoded sound
    ToneReport sound;    ///< all of it
    ToneReport latest;   ///< its last 85 ms
};

/// The thread that receives, decodes and measures the sound. Probes until some comes, and again
/// when it pauses. Owned by the session, which may read `snapshot` from its own thread.
class AudioWorker {
  public:
    /// Called on the worker's thread with each frame in order.
    using FrameSink = std::function<void(const AudioFrame&)>;

    /// `socket` outlives the worker and is the worker's until `stop`.
    AudioWorker(MediaSocket& socket, std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                FrameSink sink);
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
    void take_frames();
    void publish();

    MediaSocket& socket_;
    AudioReceiver receiver_;  ///< worker's thread, as all up to the mutex
    AudioDecoder decoder_;
    ToneMeter meter_;
    FrameSink sink_;
    // Many agents send no sound at all.
    static constexpr uint64_t kEagerProbesUs = 5'000'000;
    ProbeTimer probes_{kEagerProbesUs};
    mutable std::mutex mutex_;
    AudioSnapshot snapshot_;  ///< guarded by mutex_
    std::jthread thread_;
};

}  // namespace ox::launcher
