#include "launcher/audio_track.h"

#include <array>
#include <cstdlib>

#include "launcher/av_handles.h"

namespace ox::launcher {

namespace {

constexpr int kSampleRate = 48000;
constexpr uint16_t kPreSkip = 120;  // 2.5 ms: what the encoder looks ahead
constexpr uint64_t kFrameUs = 5'000;
constexpr int64_t kMaxDriftUs = 60'000;
constexpr int kFramesOfAPause = 20;  // 100 ms

constexpr std::array<uint8_t, 19> kOpusHead = {
    'O',
    'p',
    'u',
    's',
    'H',
    'e',
    'a',
    'd',
    1,  // version
    2,  // channels
    kPreSkip & 0xFF,
    kPreSkip >> 8,
    kSampleRate & 0xFF,
    (kSampleRate >> 8) & 0xFF,
    0,
    0,
    0,
    0,  // gain
    0,  // channel mapping: stereo
};

}  // namespace

AVStream* add_opus_stream(AVFormatContext& format) {
    AVStream* stream = avformat_new_stream(&format, nullptr);
    auto* head = static_cast<uint8_t*>(av_mallocz(kOpusHead.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (stream == nullptr || head == nullptr) {
        av_free(head);
        return nullptr;
    }
    std::ranges::copy(kOpusHead, head);
    AVCodecParameters& parameters = *stream->codecpar;
    parameters.extradata = head;  // freed with the stream
    parameters.extradata_size = static_cast<int>(kOpusHead.size());
    parameters.codec_type = AVMEDIA_TYPE_AUDIO;
    parameters.codec_id = AV_CODEC_ID_OPUS;
    parameters.sample_rate = kSampleRate;
    parameters.initial_padding = kPreSkip;
    av_channel_layout_default(&parameters.ch_layout, 2);
    stream->time_base = {1, 1000};
    return stream;
}

std::optional<uint64_t> AudioClock::place(const AudioFrame& frame) {
    if (!anchored_) {
        if (frame.timestamp == 0) return std::nullopt;
        anchored_ = true;
        time_ = frame.timestamp;
    } else {
        time_ += uint64_t{frame.sequence - sequence_} * kFrameUs;
        if (frame.timestamp != 0) follow(static_cast<int64_t>(frame.timestamp - time_));
    }
    sequence_ = frame.sequence;
    return time_;
}

// No frame is sent before it was recorded. One that is sent late was recorded after a pause if
// those after it do not catch up.
void AudioClock::follow(int64_t lateness_us) {
    if (std::abs(lateness_us) <= kMaxDriftUs) {
        late_frames_ = 0;
    } else if (lateness_us < 0) {
        time_ -= static_cast<uint64_t>(-lateness_us);
        late_frames_ = 0;
    } else if (late_frames_ == 0 || lateness_us < least_lateness_us_) {
        least_lateness_us_ = lateness_us;
        late_frames_ = 1;
    } else if (++late_frames_ >= kFramesOfAPause) {
        time_ += static_cast<uint64_t>(least_lateness_us_);
        late_frames_ = 0;
    }
}

}  // namespace ox::launcher
