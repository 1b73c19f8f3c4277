#include "audio/audio_capture.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "audio/sound_server.h"
#include "base/clock.h"
#include "log/log.h"

namespace ox {
namespace {

/// How long a blocked read takes at most to see that it is to stop, and how old its knowledge that
/// there is nothing to read can become. Less than what may be late, so that a sound server that
/// delivers much at once is not taken for a stall.
constexpr std::chrono::milliseconds kSlice{10};

bool is_dry(int pipe) {
    int bytes = 0;
    return ::ioctl(pipe, FIONREAD, &bytes) == 0 && bytes == 0;
}

}  // namespace

std::string AudioCapture::default_monitor() const {
    // A sound server that does not answer must not hold up the session.
    constexpr std::chrono::milliseconds kLimit{2000};
    const std::string sink =
        first_output_of("pactl get-default-sink 2>/dev/null", sound_server_environment(), kLimit,
                        [this] { return is_cancelled(); });
    return sink.empty() ? "" : sink + ".monitor";
}

bool AudioCapture::start(int sample_rate, int channels, const std::string& source, int latency_ms) {
    stop();
    if (sample_rate < 1 || channels < 1) return false;
    stopping_ = false;
    dry_.reset();
    source_ = source.empty() ? default_monitor() : source;
    if (is_cancelled()) return false;
    const std::string latency = "--latency-msec=" + std::to_string(latency_ms);
    std::vector<std::string> argv{"parec"};
    if (!source_.empty()) argv.insert(argv.end(), {"--device", source_});
    argv.insert(argv.end(), {"--format=s16le", "--rate", std::to_string(sample_rate), "--channels",
                             std::to_string(channels), latency, "--raw"});
    if (!start_recorder(argv)) return false;
    channels_ = channels;
    OX_INFO("AudioCapture: parec started (source=%s, %dHz, %dch, %s, pid=%d)",
            source_.empty() ? "default" : source_.c_str(), sample_rate, channels, latency.c_str(),
            pid());
    return true;
}

pid_t AudioCapture::pid() const {
    const std::lock_guard lock(child_mutex_);
    return child_.pid();
}

bool AudioCapture::start_recorder(const std::vector<std::string>& argv) {
    const std::lock_guard lock(child_mutex_);
    switch (child_.start(argv, sound_server_environment())) {
        case PipedChild::Started::Ok:
            return true;
        case PipedChild::Started::NoPipe:
            OX_ERROR("AudioCapture: pipe() failed: %s", std::strerror(errno));
            return false;
        case PipedChild::Started::NoFork:
            OX_ERROR("AudioCapture: fork() failed: %s", std::strerror(errno));
            return false;
    }
    return false;
}

bool AudioCapture::wait_readable(std::chrono::milliseconds limit) {
    const std::lock_guard lock(child_mutex_);
    // The end of a recording is there to be read, too.
    return (!child_.is_open() && !stopping_) || wait_for_input(limit);
}

bool AudioCapture::wait_for_input(std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    while (!stopping_) {
        const auto now = SteadyClock::now();
        if (is_dry(child_.output())) dry_ = now;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        pollfd entry{.fd = child_.output(), .events = POLLIN, .revents = 0};
        const auto wait = std::clamp(left, std::chrono::milliseconds{0}, kSlice);
        const int ready = ::poll(&entry, 1, static_cast<int>(wait.count()));
        if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
        if (left.count() <= 0) return false;
    }
    return false;
}

bool AudioCapture::read(std::vector<int16_t>& samples, size_t frames) {
    const std::lock_guard lock(child_mutex_);
    if (!child_.is_open() || frames == 0) return false;
    samples.resize(frames * static_cast<size_t>(channels_));
    // The samples are the machine's own 16-bit integers: little-endian, as parec was asked for.
    if (!fill(reinterpret_cast<uint8_t*>(samples.data()), samples.size() * sizeof(int16_t))) {
        return false;
    }
    note_energy(samples.data(), samples.size());
    return true;
}

bool AudioCapture::fill(uint8_t* bytes, size_t wanted) {
    size_t have = 0;
    while (have < wanted) {
        if (stopping_) return false;
        if (!wait_for_input(kSlice)) continue;
        const ssize_t length = ::read(child_.output(), bytes + have, wanted - have);
        if (length > 0) {
            have += static_cast<size_t>(length);
            continue;
        }
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) {
            OX_ERROR("AudioCapture: read() failed: %s", std::strerror(errno));
        } else if (!stopping_) {
            OX_WARN("AudioCapture: parec closed the pipe after %zu/%zu bytes", have, wanted);
        }
        child_.stop();
        return false;
    }
    return true;
}

void AudioCapture::note_energy(const int16_t* samples, size_t count) {
    constexpr int16_t kSilence = 33;  // about -60 dBFS
    ++frames_read_;
    const bool audible = std::any_of(samples, samples + count, [](int16_t sample) {
        return sample > kSilence || sample < -kSilence;
    });
    if (audible) ++audible_frames_;
}

void AudioCapture::stop() {
    stopping_ = true;  // a reader lets go of the child
    const std::lock_guard lock(child_mutex_);
    child_.stop();
}

}  // namespace ox
