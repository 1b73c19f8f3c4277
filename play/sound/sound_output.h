#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "launcher/client/audio_receiver.h"
#include "play/sound/capture_clock.h"
#include "play/sound/playout_buffer.h"

namespace ox::play {

struct SoundStats {
    bool open = false;      ///< a device plays
    uint32_t openings = 0;  ///< of a device, the first one included
    double device_ms = 0;   ///< what the device holds itself: an estimate, as SDL does not tell
    double delay_ms = 0;  ///< from decoding to the loudspeaker: the buffer's level and the device's
    PlayoutStats buffer;
};

/// Plays decoded sound on SDL's default output. A thread of its own opens the device, and again
/// whenever it or its server is lost, because a sound server that hangs blocks SDL for half a
/// minute. SDL's audio subsystem is used by no one else; it is independent of SDL_Init and
/// SDL_Quit.
class SoundOutput {
  public:
    SoundOutput();
    /// Takes one second at most: a thread that hangs in SDL is left behind.
    ~SoundOutput();
    SoundOutput(const SoundOutput&) = delete;
    SoundOutput& operator=(const SoundOutput&) = delete;

    /// Call once, on the thread that sets SDL's hints; returns at once. False, with a text for the
    /// log in `error`, when the system refuses a thread.
    bool start(std::string& error);

    /// Adds what launcher::AudioWorker decoded. Called by its thread alone.
    void add(std::span<const int16_t> pcm, const launcher::AudioFrame& frame, uint64_t now_us);

    /// Tells the capture time (agent's clock) of the picture that has just been shown, at any rate;
    /// sound stays within 40 ms of it. Any thread.
    void picture_shown(uint64_t capture_us, uint64_t now_us);

    [[nodiscard]] SoundStats stats() const;  ///< any thread
    /// Why nothing plays, for the log; empty while a device is open and before the first attempt.
    [[nodiscard]] std::string problem() const;  ///< any thread

  private:
    struct State;

    const std::shared_ptr<State> state_;  ///< shared with the thread, which may outlive this
    CaptureClock clock_;                  ///< the audio worker's thread's
    std::jthread thread_;
};

}  // namespace ox::play
