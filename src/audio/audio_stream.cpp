#include "audio/audio_stream.h"

#include <pthread.h>

#include <algorithm>
#include <system_error>

#include "audio/audio_headers.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "log/log.h"
#include "scheduling/thread_priority.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kReportPeriod{5};
constexpr std::chrono::milliseconds kIdleSlice{100};
constexpr std::chrono::milliseconds kReopenPause{500};
constexpr std::chrono::milliseconds kAnswer{10};

unsigned long long count(uint64_t value) {
    return value;
}

}  // namespace

AudioStream::~AudioStream() {
    stop();
}

const char* AudioStream::source_name() const {
    return capture_.source().empty() ? "default" : capture_.source().c_str();
}

bool AudioStream::check_start(const UdpSender& sender, const uint8_t* key, size_t key_length) {
    if (key == nullptr || key_length != Encryption::kKeyBytes) {
        OX_ERROR("AudioStream: refusing to start with a %zu-byte audio key (want %zu)",
                 key == nullptr ? size_t{0} : key_length, Encryption::kKeyBytes);
        return false;
    }
    if (!sender.is_open()) {
        OX_ERROR("AudioStream: UDP sender is not open");
        return false;
    }
    if (!encryption_.set_key(key, key_length)) {
        OX_ERROR("AudioStream: Encryption::set_key failed");
        return false;
    }
    return true;
}

bool AudioStream::start(UdpSender& sender, const uint8_t* key, size_t key_length, int sample_rate,
                        int channels, int bitrate_bps) {
    stop();
    if (!check_start(sender, key, key_length)) return false;
    if (!encoder_.init(sample_rate, channels, bitrate_bps)) {
        OX_ERROR("AudioStream: encoder init failed");
        return false;
    }
    if (!capture_.start(sample_rate, channels, "", AudioEncoder::kFrameMs)) {
        OX_ERROR("AudioStream: capture start failed (is PulseAudio running?)");
        encoder_.shutdown();
        return false;
    }
    sender_ = &sender;
    sample_rate_ = sample_rate;
    channels_ = channels;
    running_ = true;
    try {
        thread_ = std::jthread([this](const std::stop_token& token) { loop(token); });
    } catch (const std::system_error& error) {
        OX_ERROR("AudioStream: cannot start the audio thread: %s", error.what());
        stop();
        return false;
    }
    OX_INFO("AudioStream: started (%dHz %dch, %d-sample frames, default source, parity %s)",
            sample_rate, channels, encoder_.frame_samples(), parity_enabled_ ? "4:2 ON" : "off");
    return true;
}

void AudioStream::stop() {
    thread_.request_stop();
    capture_.request_stop();
    if (thread_.joinable()) thread_.join();
    capture_.stop();
    encoder_.shutdown();
    running_ = false;
}

void AudioStream::loop(const std::stop_token& stop) {
    ::pthread_setname_np(::pthread_self(), "ox-audio");
    use_minimal_timer_slack();
    const RealTimePriority priority("AudioStream");
    last_report_ = SteadyClock::now();
    reported_frames_ = capture_.frames_read();
    reported_audible_ = capture_.audible_frames();
    moved_ = refused_ = false;
    followed_sink_.clear();
    next_reopen_ = {};
    live_edge_.reset();
    watch_.watch(capture_.pid());
    // The first sound waits until the recording has been found.
    settled_verdict(stop, kReopenPause);
    unknown_ = false;
    while (!stop.stop_requested() && handle_buffer(stop))
        report();
    reset_parity_block();
    running_ = false;
    OX_INFO(
        "AudioStream: thread exit (sent=%llu, errors=%llu, parity=%llu, parity symbols=%llu, "
        "skipped=%llu, parity errors=%llu)",
        count(sent_), count(errors_), count(parity_blocks_), count(parity_symbols_),
        count(skipped_blocks_), count(parity_errors_));
}

RecordingWatch::Verdict AudioStream::settled_verdict(const std::stop_token& stop,
                                                     std::chrono::milliseconds limit) {
    constexpr std::chrono::microseconds kPause{200};
    const auto deadline = SteadyClock::now() + limit;
    for (;;) {
        const RecordingWatch::Verdict verdict = watch_.poll();
        if (verdict != RecordingWatch::Verdict::Unknown || stop.stop_requested() ||
            SteadyClock::now() >= deadline) {
            return verdict;
        }
        sleep_until_steady(SteadyClock::now() + kPause);
    }
}

bool AudioStream::handle_buffer(const std::stop_token& stop) {
    // A recording that delivers nothing may still be moved.
    if (!capture_.wait_readable(kIdleSlice)) {
        recording_is_safe(stop);
        return true;
    }
    const auto frame_samples = static_cast<size_t>(encoder_.frame_samples());
    if (!capture_.read(pcm_, frame_samples)) {
        if (stop.stop_requested()) return false;
        OX_WARN("AudioStream: capture ended — stopping audio");
        return false;
    }
    const bool live = live_edge_.keep(std::chrono::milliseconds(AudioEncoder::kFrameMs),
                                      capture_.take_dry_time(), SteadyClock::now());
    return !recording_is_safe(stop) || !live || send_frame();
}

bool AudioStream::recording_is_safe(const std::stop_token& stop) {
    // The server is asked again at every change of the recording, be it its volume, and answers
    // within a millisecond. One that does not is not waited for at every buffer.
    const RecordingWatch::Verdict verdict =
        settled_verdict(stop, unknown_ ? std::chrono::milliseconds::zero() : kAnswer);
    unknown_ = verdict == RecordingWatch::Verdict::Unknown;
    switch (verdict) {
        case RecordingWatch::Verdict::Unknown:
            return false;
        case RecordingWatch::Verdict::Unwatched:
            return is_named_or_reopened(stop);
        case RecordingWatch::Verdict::OnMonitor:
            moved_ = false;
            followed_sink_.clear();
            return true;
        case RecordingWatch::Verdict::Elsewhere:
            if (!moved_) {
                OX_WARN(
                    "AudioStream: the recording was moved off the output's monitor — its sound is "
                    "dropped, opening the present output");
            }
            moved_ = true;
            reopen_capture(stop);
            return false;
        case RecordingWatch::Verdict::DefaultChanged:
            // A source that the server prefers is kept.
            if (followed_sink_ == watch_.default_sink()) return true;
            if (!reopen_capture(stop)) return true;
            followed_sink_ = watch_.default_sink();
            return false;
    }
    return false;
}

bool AudioStream::is_named_or_reopened(const std::stop_token& stop) {
    if (!capture_.source().empty()) return true;
    if (!refused_) {
        OX_WARN(
            "AudioStream: no output is known and no sound server says what is recorded — it may be "
            "a microphone, so its sound is dropped until a server answers");
    }
    refused_ = true;
    if (!watch_.default_monitor().empty()) reopen_capture(stop);
    return false;
}

bool AudioStream::reopen_capture(const std::stop_token& stop) {
    const auto now = SteadyClock::now();
    if (now < next_reopen_ || stop.stop_requested()) return false;
    next_reopen_ = now + kReopenPause;
    // Without an output there is nothing to record, and parec's own choice may be a microphone.
    std::string source = capture_.default_monitor();
    if (source.empty()) source = watch_.default_monitor();  // an older pactl cannot say
    if (source.empty()) return false;
    if (!capture_.start(sample_rate_, channels_, source, AudioEncoder::kFrameMs)) return false;
    live_edge_.reset();
    watch_.watch(capture_.pid());
    return true;
}

bool AudioStream::send_frame() {
    if (encoder_.encode(pcm_.data(), encoder_.frame_samples(), opus_) < 1) {
        ++errors_;
        return true;
    }
    const auto number = numbers_->take();
    if (!number) {
        OX_ERROR("AudioStream: all sequence numbers of this key are used up — stopping audio");
        return false;
    }
    const uint32_t sequence = *number;
    const uint64_t timestamp = steady_now_us();
    const bool block_complete = parity_enabled_ && block_.add(sequence, opus_, timestamp);
    if (send_data_packet(sequence, timestamp)) {
        ++sent_;
    } else {
        ++errors_;
    }
    if (block_complete) finish_block();
    return true;
}

bool AudioStream::send_data_packet(uint32_t sequence, uint64_t timestamp) {
    packet_.header = audio_data_header(sequence, timestamp);
    packet_.payload.assign(opus_);
    return seal_and_send();
}

bool AudioStream::seal_and_send() {
    PacketPayload& payload = packet_.payload;
    size_t sealed_bytes = 0;
    if (!encryption_.encrypt_packet(packet_.header, payload.data(), payload.size(), payload.data(),
                                    sealed_bytes)) {
        return false;
    }
    payload.resize(sealed_bytes);
    return sender_->send_packet(packet_);
}

void AudioStream::finish_block() {
    if (block_.fits()) {
        send_parity_block(block_.base());
    } else {
        ++skipped_blocks_;
    }
}

void AudioStream::send_parity_block(uint32_t base) {
    if (block_.encode(shards_) != audioparity::Guard::kOk) {
        ++parity_errors_;
        return;
    }
    bool any_sent = false;
    for (size_t i = 0; i < audioparity::kRepairs; ++i) {
        packet_.header = audio_repair_header(base, i, block_.last_timestamp());
        packet_.payload.assign({shards_.bytes[i].data(), shards_.lengths[i]});
        if (seal_and_send()) {
            ++parity_symbols_;
            any_sent = true;
        } else {
            ++parity_errors_;
        }
    }
    if (any_sent) ++parity_blocks_;
}

void AudioStream::report() {
    const auto now = SteadyClock::now();
    if (now - last_report_ < kReportPeriod) return;
    last_report_ = now;
    const uint64_t frames = capture_.frames_read();
    const uint64_t audible = capture_.audible_frames();
    if (frames > reported_frames_ && audible == reported_audible_) {
        ++silent_intervals_;
        OX_ERROR(
            "AudioStream: %llu buffers captured, 0 audible (source=%s) — loopback is SILENT: muted "
            "sink, wrong device, or DRM content",
            count(frames - reported_frames_), source_name());
    } else {
        OX_INFO(
            "AudioStream: sent=%llu audible=%llu/%llu errors=%llu parity=%llu sym=%llu "
            "skipped=%llu "
            "perr=%llu",
            count(sent_), count(audible), count(frames), count(errors_), count(parity_blocks_),
            count(parity_symbols_), count(skipped_blocks_), count(parity_errors_));
    }
    reported_frames_ = frames;
    reported_audible_ = audible;
}

}  // namespace ox
