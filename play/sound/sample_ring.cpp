#include "play/sound/sample_ring.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace ox::play {

bool SampleRing::push(std::span<const int16_t> pcm) {
    const size_t frames = pcm.size() / 2;
    if (frames > kCapacity) pcm = pcm.last(kCapacity * 2);
    const size_t added = std::min(frames, kCapacity);
    const bool fits = frames <= kCapacity - size_;
    if (!fits) skip(size_ + added - kCapacity);
    for (size_t i = 0; i < added; ++i) {
        const size_t at = index(size_ + i);
        samples_[at] = pcm[2 * i];
        samples_[at + 1] = pcm[2 * i + 1];
    }
    size_ += added;
    return fits;
}

size_t SampleRing::pop(std::span<float> pcm) {
    constexpr float kScale = 1.0F / 32768;
    const size_t frames = std::min(pcm.size() / 2, size_);
    for (size_t i = 0; i < frames; ++i) {
        const size_t at = index(i);
        pcm[2 * i] = static_cast<float>(samples_[at]) * kScale;
        pcm[2 * i + 1] = static_cast<float>(samples_[at + 1]) * kScale;
    }
    skip(frames);
    return frames;
}

void SampleRing::skip(size_t frames) {
    frames = std::min(frames, size_);
    first_ = (first_ + frames) % kCapacity;
    size_ -= frames;
}

void SampleRing::skip_smoothly(size_t frames) {
    if (size_ < frames + kCrossfadeFrames) return;
    for (size_t i = 0; i < kCrossfadeFrames; ++i) {
        const double part = (static_cast<double>(i) + 0.5) / kCrossfadeFrames;
        const double fresh = 0.5 - 0.5 * std::cos(std::numbers::pi * part);
        for (size_t channel = 0; channel < 2; ++channel) {
            int16_t& sample = samples_[index(frames + i) + channel];
            const double blended = fresh * sample + (1 - fresh) * samples_[index(i) + channel];
            sample = static_cast<int16_t>(std::lround(blended));
        }
    }
    skip(frames);
}

}  // namespace ox::play
