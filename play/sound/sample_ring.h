#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ox::play {

/// Queue of 16-bit stereo sample pairs ("frames" here) of fixed capacity. Never allocates after its
/// construction. Used by one thread at a time.
class SampleRing {
  public:
    static constexpr size_t kCapacity = 32768;       ///< frames; 683 ms
    static constexpr size_t kCrossfadeFrames = 240;  ///< 5 ms

    [[nodiscard]] size_t size() const { return size_; }

    /// Adds interleaved samples; the oldest ones make room. False when some had to.
    bool push(std::span<const int16_t> pcm);
    /// Takes up to `pcm.size() / 2` frames as floats of -1..1; returns their number.
    size_t pop(std::span<float> pcm);
    /// Forgets the oldest frames.
    void skip(size_t frames);
    /// Likewise, but blends what would have followed into what follows now.
    void skip_smoothly(size_t frames);

  private:
    [[nodiscard]] size_t index(size_t frame) const { return (first_ + frame) % kCapacity * 2; }

    std::vector<int16_t> samples_ = std::vector<int16_t>(kCapacity * 2);
    size_t first_ = 0;
    size_t size_ = 0;
};

}  // namespace ox::play
