#include "launcher/client/audio_receiver.h"

#include <opus/opus.h>

#include <algorithm>
#include <cstdlib>

namespace ox::launcher {

namespace {

constexpr int kMaxFrameSamples = 5760;        // 120 ms, the longest Opus packet
constexpr uint64_t kMaxConcealedFrames = 10;  // the decoder fades to silence

constexpr uint64_t kFrameUs = 5'000;
constexpr int64_t kMaxDriftUs = 60'000;
constexpr int kPauseFrames = 20;  // 100 ms

}  // namespace

void AudioReceiver::on_datagram(std::span<const uint8_t> datagram, uint64_t now_us) {
    const auto packet = opener_.open(datagram);
    if (!packet) {
        ++stats_.undecryptable;
        return;
    }
    stats_.count_arrival(now_us);
    const PacketVerdict verdict = assembler_.push(packet->header, packet->payload, now_us);
    stats_.count(verdict);
    if (verdict == PacketVerdict::Data) stats_.data_bytes += packet->payload.size();
}

std::optional<AudioFrame> AudioReceiver::next_frame() {
    auto frame = assembler_.pop();
    stats_.frames = assembler_.counters();
    if (!frame) return std::nullopt;
    if (frame->timestamp != 0) jitter_.add(frame->timestamp, frame->arrived);
    stats_.jitter_ms = jitter_.jitter_ms();
    if (stats_.frames.delivered == 1) stats_.first_sequence = frame->sequence;
    stats_.last_sequence = frame->sequence;
    return frame;
}

void AudioDecoder::Deleter::operator()(OpusDecoder* decoder) const noexcept {
    ::opus_decoder_destroy(decoder);
}

bool AudioDecoder::open(std::string& error) {
    int result = OPUS_OK;
    decoder_.reset(::opus_decoder_create(kSampleRate, kChannels, &result));
    if (decoder_) return true;
    error = std::string("cannot decode sound: ") + ::opus_strerror(result);
    return false;
}

std::span<const int16_t> AudioDecoder::decode(const AudioFrame& frame) {
    const uint64_t gaps = std::min(frame.lost_before, kMaxConcealedFrames);
    samples_.resize((gaps * static_cast<size_t>(frame_samples_) + kMaxFrameSamples) * kChannels);
    size_t used = 0;
    for (uint64_t i = 0; i < gaps; ++i) {
        const int made =
            ::opus_decode(decoder_.get(), nullptr, 0, samples_.data() + used, frame_samples_, 0);
        if (made <= 0) break;
        used += static_cast<size_t>(made) * kChannels;
        ++concealed_;
    }
    const int made =
        ::opus_decode(decoder_.get(), frame.opus.data(), static_cast<int>(frame.opus.size()),
                      samples_.data() + used, kMaxFrameSamples, 0);
    if (made <= 0) {
        ++errors_;
        return {};
    }
    frame_samples_ = made;
    ++frames_;
    return std::span<const int16_t>(samples_).first(used + static_cast<size_t>(made) * kChannels);
}

std::optional<uint64_t> AudioClock::capture_time(const AudioFrame& frame) {
    if (!anchored_) {
        if (frame.timestamp == 0) return std::nullopt;
        anchored_ = true;
        time_ = frame.timestamp;
    } else {
        time_ += uint64_t{frame.sequence - sequence_} * kFrameUs;
        if (frame.timestamp != 0) correct(static_cast<int64_t>(frame.timestamp - time_));
    }
    sequence_ = frame.sequence;
    return time_;
}

// A frame cannot be sent before it was recorded. A frame that is sent late was recorded after a
// pause unless later ones catch up.
void AudioClock::correct(int64_t lateness_us) {
    if (std::abs(lateness_us) <= kMaxDriftUs) {
        late_frames_ = 0;
    } else if (lateness_us < 0) {
        time_ -= static_cast<uint64_t>(-lateness_us);
        late_frames_ = 0;
    } else if (late_frames_ == 0 || lateness_us < least_lateness_us_) {
        least_lateness_us_ = lateness_us;
        late_frames_ = 1;
    } else if (++late_frames_ >= kPauseFrames) {
        time_ += static_cast<uint64_t>(least_lateness_us_);
        late_frames_ = 0;
    }
}

}  // namespace ox::launcher
