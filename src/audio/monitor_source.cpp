#include "audio/monitor_source.h"

#include "audio/audio_encoder.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr std::chrono::milliseconds kIdleSlice{100};
constexpr std::chrono::milliseconds kReopenPause{500};
constexpr std::chrono::milliseconds kFirstVerdictLimit{500};
constexpr std::chrono::milliseconds kVerdictLimit{10};
constexpr std::chrono::milliseconds kFrame{AudioEncoder::kFrameMs};

}  // namespace

bool MonitorSource::open(int sample_rate, int channels) {
    if (!capture_.start(sample_rate, channels, "", AudioEncoder::kFrameMs)) return false;
    sample_rate_ = sample_rate;
    channels_ = channels;
    next_reopen_ = {};
    first_read_ = true;
    server_slow_ = warned_unknown_ = warned_moved_ = false;
    followed_default_.clear();
    live_edge_.reset();
    watch_.watch(capture_.pid());
    return true;
}

MonitorSource::Frame MonitorSource::read(std::vector<int16_t>& pcm, size_t samples,
                                         const std::stop_token& stop) {
    if (first_read_) {
        first_read_ = false;
        wait_for_verdict(stop, kFirstVerdictLimit);
    }
    // A recording that delivers nothing may still be moved.
    if (!capture_.wait_readable(kIdleSlice, stop)) {
        ensure_monitor_source(stop);
        return stop.stop_requested() ? Frame::Ended : Frame::Dropped;
    }
    if (!capture_.read(pcm, samples, stop)) return Frame::Ended;
    const bool live = live_edge_.is_live(kFrame, capture_.take_empty_time(), SteadyClock::now());
    return ensure_monitor_source(stop) && live ? Frame::Live : Frame::Dropped;
}

RecordingWatch::Verdict MonitorSource::wait_for_verdict(const std::stop_token& stop,
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

/// False when the frame just read must not be sent; reopens the recording where that helps.
bool MonitorSource::ensure_monitor_source(const std::stop_token& stop) {
    // Every change of the recording, even of its volume, makes the verdict unknown for the
    // millisecond that the server takes to answer. A server that takes longer is waited for once
    // only.
    const RecordingWatch::Verdict verdict =
        wait_for_verdict(stop, server_slow_ ? std::chrono::milliseconds::zero() : kVerdictLimit);
    server_slow_ = verdict == RecordingWatch::Verdict::Unknown;
    switch (verdict) {
        case RecordingWatch::Verdict::Unknown:
            return false;
        case RecordingWatch::Verdict::Unwatched:
            return ensure_known_source(stop);
        case RecordingWatch::Verdict::OnMonitor:
            warned_moved_ = false;
            followed_default_.clear();
            return true;
        case RecordingWatch::Verdict::Elsewhere:
            if (!warned_moved_) {
                OX_WARN(
                    "AudioStream: the recording was moved off the output's monitor — its sound is "
                    "dropped, opening the present output");
            }
            warned_moved_ = true;
            reopen(stop);
            return false;
        case RecordingWatch::Verdict::DefaultChanged:
            // Reopen once per default output: the server may insist on another source.
            if (followed_default_ == watch_.default_sink()) return true;
            if (!reopen(stop)) return true;
            followed_default_ = watch_.default_sink();
            return false;
    }
    return false;
}

/// No server knows the recording: a source that was asked for by name is trusted, parec's own
/// choice is not.
bool MonitorSource::ensure_known_source(const std::stop_token& stop) {
    if (!capture_.source().empty()) return true;
    if (!warned_unknown_) {
        OX_WARN(
            "AudioStream: no output is known and no sound server says what is recorded — it may be "
            "a microphone, so its sound is dropped until a server answers");
    }
    warned_unknown_ = true;
    if (!watch_.default_monitor().empty()) reopen(stop);
    return false;
}

bool MonitorSource::reopen(const std::stop_token& stop) {
    const auto now = SteadyClock::now();
    if (now < next_reopen_ || stop.stop_requested()) return false;
    next_reopen_ = now + kReopenPause;
    std::string source = capture_.default_monitor();
    if (source.empty()) source = watch_.default_monitor();  // an older pactl cannot say
    // Never without a name: parec's own choice may be a microphone.
    if (source.empty()) return false;
    if (!capture_.start(sample_rate_, channels_, source, AudioEncoder::kFrameMs)) return false;
    live_edge_.reset();
    watch_.watch(capture_.pid());
    return true;
}

}  // namespace ox
