#include "launcher/audio_decoder.h"

#include <opus/opus.h>

#include <algorithm>

namespace ox::launcher {

namespace {

constexpr int kMaxFrameSamples = 5760;        // 120 ms, the longest Opus packet
constexpr uint64_t kMaxConcealedFrames = 10;  // beyond that the guess is silence anyway

}  // namespace

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

}  // namespace ox::launcher
