#include "play/sound/sound_output.h"

#include <SDL.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/thread.h"

namespace ox::play {

namespace {

using std::chrono::milliseconds;

constexpr int kPeriodFrames = 960;  // 20 ms; half of it clicks with PulseAudio
constexpr milliseconds kWatchPeriod{100};
constexpr milliseconds kFirstRetry{250};
constexpr milliseconds kLastRetry{4'000};
constexpr milliseconds kStopLimit{1'000};
constexpr uint64_t kSilentDeviceUs = 2'000'000;  // without a callback: its server hangs

// SDL's audio subsystem with one open device.
class Device {
  public:
    Device() = default;
    ~Device() { close(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    bool open(SDL_AudioCallback callback, void* context, std::string& error) {
        initialized_ = ::SDL_AudioInit(nullptr) == 0;
        // ALSA, the fallback of a missing server, writes to standard error when it opens no card.
        if (initialized_ && ::SDL_GetNumAudioDevices(0) == 0) {
            error = "there is no sound server and no sound card";
            close();
            return false;
        }
        SDL_AudioSpec wanted{};
        wanted.freq = PlayoutBuffer::kSampleRate;
        wanted.format = AUDIO_F32SYS;
        wanted.channels = 2;
        wanted.samples = kPeriodFrames;
        wanted.callback = callback;
        wanted.userdata = context;
        SDL_AudioSpec got{};
        if (initialized_)
            id_ = ::SDL_OpenAudioDevice(nullptr, 0, &wanted, &got, SDL_AUDIO_ALLOW_SAMPLES_CHANGE);
        if (id_ == 0) {
            error = ::SDL_GetError();
            close();
            return false;
        }
        period_frames_ = got.samples;
        ::SDL_PauseAudioDevice(id_, 0);
        return true;
    }

    void close() {
        if (id_ != 0) ::SDL_CloseAudioDevice(id_);
        id_ = 0;
        // A lost server stays lost to the subsystem.
        if (initialized_) ::SDL_AudioQuit();
        initialized_ = false;
    }

    [[nodiscard]] bool is_open() const { return id_ != 0; }
    [[nodiscard]] bool lost() const { return ::SDL_GetAudioDeviceStatus(id_) == SDL_AUDIO_STOPPED; }
    [[nodiscard]] int period_frames() const { return period_frames_; }

  private:
    bool initialized_ = false;
    SDL_AudioDeviceID id_ = 0;
    int period_frames_ = 0;
};

}  // namespace

struct SoundOutput::State {
    PlayoutBuffer buffer;
    std::atomic<uint64_t> pulled_at_us{0};
    std::atomic<uint64_t> device_us{0};

    mutable Mutex mutex;
    std::condition_variable changed;
    bool stopping OX_GUARDED_BY(mutex) = false;
    bool ended OX_GUARDED_BY(mutex) = false;
    bool open OX_GUARDED_BY(mutex) = false;
    uint32_t openings OX_GUARDED_BY(mutex) = 0;
    std::string problem OX_GUARDED_BY(mutex);

    void run();

  private:
    static void fill(void* self, Uint8* bytes, int size);
    void try_to_open(Device& device);
    [[nodiscard]] bool lost(const Device& device) const;
    /// False when the thread is to end.
    bool sleep(milliseconds time);
};

void SoundOutput::State::fill(void* self, Uint8* bytes, int size) {
    auto& state = *static_cast<State*>(self);
    const uint64_t now = steady_now_us();
    state.pulled_at_us = now;
    // SDL's buffer of AUDIO_F32SYS.
    auto* samples = static_cast<float*>(static_cast<void*>(bytes));
    state.buffer.pull({samples, static_cast<size_t>(size) / sizeof(float)}, now);
}

void SoundOutput::State::run() {
    Device device;
    milliseconds retry = kFirstRetry;
    do {
        if (device.is_open()) {
            if (!lost(device)) continue;
            {
                const MutexLock lock(mutex);
                open = false;
                problem = "the sound device is gone";
            }
            device.close();
        }
        try_to_open(device);
        retry = device.is_open() ? kFirstRetry : std::min(2 * retry, kLastRetry);
    } while (sleep(device.is_open() ? kWatchPeriod : retry));
    device.close();
    const MutexLock lock(mutex);
    open = false;
    ended = true;
    changed.notify_all();
}

void SoundOutput::State::try_to_open(Device& device) {
    buffer.restart();
    pulled_at_us = steady_now_us();
    std::string error;
    const bool opened = device.open(&State::fill, this, error);
    // Of a device that is full when it has taken a period, and of the server behind it.
    device_us = uint64_t{2} * static_cast<uint64_t>(device.period_frames()) * 1'000'000 /
                PlayoutBuffer::kSampleRate;
    const MutexLock lock(mutex);
    open = opened;
    openings += opened ? 1 : 0;
    problem = error;
}

bool SoundOutput::State::lost(const Device& device) const {
    return device.lost() || steady_now_us() > pulled_at_us + kSilentDeviceUs;
}

bool SoundOutput::State::sleep(milliseconds time) {
    const auto deadline = SteadyClock::now() + time;
    MutexLock lock(mutex);
    while (!stopping && lock.wait_until(changed, deadline) != std::cv_status::timeout) {
    }
    return !stopping;
}

SoundOutput::SoundOutput() : state_(std::make_shared<State>()) {}

SoundOutput::~SoundOutput() {
    if (!thread_.joinable()) return;
    const auto deadline = SteadyClock::now() + kStopLimit;
    MutexLock lock(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
    while (!state_->ended &&
           lock.wait_until(state_->changed, deadline) != std::cv_status::timeout) {
    }
    if (!state_->ended) thread_.detach();
}

bool SoundOutput::start(std::string& error) {
    ::SDL_SetHint(SDL_HINT_AUDIO_DEVICE_APP_NAME, "orvex-play");
    ::SDL_SetHint(SDL_HINT_AUDIO_DEVICE_STREAM_NAME, "orvex-play");
    ::SDL_SetHint(SDL_HINT_AUDIO_DEVICE_STREAM_ROLE, "game");
    thread_ = start_thread([state = state_] { state->run(); },
                           [&error](const char* reason) { error = reason; });
    return thread_.joinable();
}

void SoundOutput::add(std::span<const int16_t> pcm, const launcher::AudioFrame& frame,
                      uint64_t now_us) {
    state_->buffer.push(pcm, clock_.end_us(frame), now_us);
}

void SoundOutput::picture_shown(uint64_t capture_us, uint64_t now_us) {
    state_->buffer.picture_shown(capture_us, now_us, state_->device_us);
}

SoundStats SoundOutput::stats() const {
    SoundStats stats;
    stats.buffer = state_->buffer.stats();
    const MutexLock lock(state_->mutex);
    stats.open = state_->open;
    stats.openings = state_->openings;
    stats.device_ms = static_cast<double>(state_->device_us) / 1000;
    stats.delay_ms = stats.buffer.level_ms + stats.device_ms;
    return stats;
}

std::string SoundOutput::problem() const {
    const MutexLock lock(state_->mutex);
    return state_->problem;
}

}  // namespace ox::play
