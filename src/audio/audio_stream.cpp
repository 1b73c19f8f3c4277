#include "audio/audio_stream.h"

#include <pthread.h>

#include "base/sleep.h"
#include "base/thread.h"
#include "log/log.h"
#include "scheduling/thread_priority.h"

namespace ox {
namespace {

unsigned long long count(uint64_t value) {
    return value;
}

}  // namespace

AudioStream::~AudioStream() {
    stop();
}

bool AudioStream::start(UdpSender& sender, const uint8_t* key, size_t key_length, int sample_rate,
                        int channels, int bitrate_bps) {
    stop();
    const std::span<const uint8_t> key_bytes(key, key == nullptr ? 0 : key_length);
    if (!packetizer_.open(sender, key_bytes, sample_rate, channels, bitrate_bps)) return false;
    if (!source_.open(sample_rate, channels)) {
        OX_ERROR("AudioStream: capture start failed (is PulseAudio running?)");
        packetizer_.close();
        return false;
    }
    running_ = true;
    thread_ = start_thread(
        [this](const std::stop_token& token) { loop(token); },
        [](const char* why) { OX_ERROR("AudioStream: cannot start the audio thread: %s", why); });
    if (!thread_.joinable()) {
        stop();
        return false;
    }
    OX_INFO("AudioStream: started (%dHz %dch, %d-sample frames, default source, parity %s)",
            sample_rate, channels, packetizer_.frame_samples(),
            packetizer_.parity_enabled() ? "4:2 ON" : "off");
    return true;
}

void AudioStream::stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
    source_.close();
    packetizer_.close();
    running_ = false;
}

void AudioStream::loop(const std::stop_token& stop) {
    ::pthread_setname_np(::pthread_self(), "ox-audio");
    use_minimal_timer_slack();
    const RealTimePriority priority("AudioStream");
    last_report_ = SteadyClock::now();
    reported_buffers_ = source_.buffers_read();
    reported_audible_ = source_.audible_buffers();
    while (!stop.stop_requested() && process_frame(stop))
        report_if_due();
    running_ = false;
    const AudioPacketizer::Counters& total = packetizer_.counters();
    OX_INFO(
        "AudioStream: thread exit (sent=%llu, errors=%llu, parity=%llu, parity symbols=%llu, "
        "skipped=%llu, parity errors=%llu)",
        count(total.sent), count(total.errors), count(total.parity_blocks),
        count(total.parity_symbols), count(total.skipped_blocks), count(total.parity_errors));
}

bool AudioStream::process_frame(const std::stop_token& stop) {
    const auto samples = static_cast<size_t>(packetizer_.frame_samples());
    switch (source_.read(pcm_, samples, stop)) {
        case MonitorSource::Frame::Live:
            return packetizer_.send_frame(pcm_.data());
        case MonitorSource::Frame::Dropped:
            return true;
        case MonitorSource::Frame::Ended:
            if (!stop.stop_requested()) OX_WARN("AudioStream: capture ended — stopping audio");
            return false;
    }
    return false;
}

void AudioStream::report_if_due() {
    constexpr std::chrono::seconds kPeriod{5};
    const auto now = SteadyClock::now();
    if (now - last_report_ < kPeriod) return;
    last_report_ = now;
    const uint64_t buffers = source_.buffers_read();
    const uint64_t audible = source_.audible_buffers();
    if (buffers > reported_buffers_ && audible == reported_audible_) {
        OX_ERROR(
            "AudioStream: %llu buffers captured, 0 audible (source=%s) — loopback is SILENT: muted "
            "sink, wrong device, or DRM content",
            count(buffers - reported_buffers_), source_.name());
    } else {
        const AudioPacketizer::Counters& total = packetizer_.counters();
        OX_INFO(
            "AudioStream: sent=%llu audible=%llu/%llu errors=%llu parity=%llu sym=%llu "
            "skipped=%llu "
            "perr=%llu",
            count(total.sent), count(audible), count(buffers), count(total.errors),
            count(total.parity_blocks), count(total.parity_symbols), count(total.skipped_blocks),
            count(total.parity_errors));
    }
    reported_buffers_ = buffers;
    reported_audible_ = audible;
}

}  // namespace ox
