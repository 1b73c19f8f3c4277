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

/// Bounds how late a stop request is seen and how old `empty_` can be. Well below the lateness at
/// which LiveEdge drops, so that a sound server that delivers in bursts is not taken for a stall.
constexpr std::chrono::milliseconds kPollSlice{10};

bool is_empty(int pipe) {
    int bytes = 0;
    return ::ioctl(pipe, FIONREAD, &bytes) == 0 && bytes == 0;
}

bool is_audible(const std::vector<int16_t>& samples) {
    constexpr int16_t kSilence = 33;  // about -60 dBFS
    return std::ranges::any_of(
        samples, [](int16_t sample) { return sample > kSilence || sample < -kSilence; });
}

}  // namespace

std::string AudioCapture::default_monitor() const {
    constexpr std::chrono::milliseconds kLimit{2000};
    const std::string sink =
        shell_output("pactl get-default-sink 2>/dev/null", sound_server_environment(), kLimit,
                     [this] { return is_cancelled(); });
    return sink.empty() ? "" : sink + ".monitor";
}

bool AudioCapture::start(int sample_rate, int channels, const std::string& source, int latency_ms) {
    stop();
    if (sample_rate < 1 || channels < 1) return false;
    empty_.reset();
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

bool AudioCapture::start_recorder(const std::vector<std::string>& argv) {
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

bool AudioCapture::wait_readable(std::chrono::milliseconds limit, const std::stop_token& stop) {
    const bool ended = !child_.is_open();
    return ended ? !stop.stop_requested() : wait_for_input(limit, stop);
}

bool AudioCapture::wait_for_input(std::chrono::milliseconds limit, const std::stop_token& stop) {
    const auto deadline = SteadyClock::now() + limit;
    while (!stop.stop_requested()) {
        const auto now = SteadyClock::now();
        if (is_empty(child_.output())) empty_ = now;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        pollfd entry{.fd = child_.output(), .events = POLLIN, .revents = 0};
        const auto wait = std::clamp(left, std::chrono::milliseconds{0}, kPollSlice);
        const int ready = ::poll(&entry, 1, static_cast<int>(wait.count()));
        if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
        if (left.count() <= 0) return false;
    }
    return false;
}

bool AudioCapture::read(std::vector<int16_t>& samples, size_t frames, const std::stop_token& stop) {
    if (!child_.is_open() || frames == 0) return false;
    samples.resize(frames * static_cast<size_t>(channels_));
    // parec was asked for little-endian samples: the machine's own 16-bit integers.
    if (!read_bytes(reinterpret_cast<uint8_t*>(samples.data()), samples.size() * sizeof(int16_t),
                    stop)) {
        return false;
    }
    ++buffers_read_;
    if (is_audible(samples)) ++audible_buffers_;
    return true;
}

bool AudioCapture::read_bytes(uint8_t* bytes, size_t wanted, const std::stop_token& stop) {
    size_t have = 0;
    while (have < wanted) {
        if (stop.stop_requested()) return false;
        if (!wait_for_input(kPollSlice, stop)) continue;
        const ssize_t length = ::read(child_.output(), bytes + have, wanted - have);
        if (length > 0) {
            have += static_cast<size_t>(length);
            continue;
        }
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) {
            OX_ERROR("AudioCapture: read() failed: %s", std::strerror(errno));
        } else if (!stop.stop_requested()) {
            OX_WARN("AudioCapture: parec closed the pipe after %zu/%zu bytes", have, wanted);
        }
        child_.stop();
        return false;
    }
    return true;
}

}  // namespace ox
