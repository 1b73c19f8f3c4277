#include "play/sound/playout_buffer.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace ox::play {

namespace {

constexpr double kFramesPerMs = PlayoutBuffer::kSampleRate / 1000.0;
// A longer pause is none of the network's jitter.
constexpr uint64_t kMaxBetweenPushesUs = 60'000;
constexpr uint64_t kPictureValidUs = 2'000'000;
constexpr double kLagUs = 1'000'000;  // low pass

double to_ms(size_t frames) {
    return static_cast<double>(frames) / kFramesPerMs;
}

size_t to_frames(double ms) {
    return static_cast<size_t>(std::lround(std::max(ms, 0.0) * kFramesPerMs));
}

// What the converter takes at most for so many frames: 5000 ppm more.
size_t input_for(size_t frames) {
    return frames + frames / 150 + 1;
}

}  // namespace

void PlayoutBuffer::ConverterDeleter::operator()(SRC_STATE_tag* converter) const noexcept {
    ::src_delete(converter);
}

PlayoutBuffer::PlayoutBuffer() {
    int error = 0;
    converter_.reset(::src_new(SRC_SINC_FASTEST, 2, &error));
    for (size_t i = 0; i < gain_.size(); ++i)
        gain_.at(i) =
            0.5F - 0.5F * std::cos(std::numbers::pi_v<float> * static_cast<float>(i) / kFadeFrames);
}

void PlayoutBuffer::push(std::span<const int16_t> pcm, std::optional<uint64_t> capture_end_us,
                         uint64_t now_us) {
    if (pcm.empty()) return;
    const MutexLock lock(mutex_);
    // A full buffer has no device that pulls.
    if (!ring_.push(pcm)) restart_ = true;
    pushed_at_us_ = now_us;
    capture_end_us_ = capture_end_us;
}

void PlayoutBuffer::pull(std::span<float> pcm, uint64_t now_us) {
    const size_t frames = pcm.size() / 2;
    {
        const MutexLock lock(mutex_);
        begin_pull(frames, now_us);
    }
    const bool sounding = phase_ != Phase::Silent;
    if (sounding) {
        resample(pcm);
        apply_gain(pcm);
    } else {
        std::ranges::fill(pcm, 0.0F);
    }
    const MutexLock lock(mutex_);
    end_pull(frames, now_us);
}

void PlayoutBuffer::restart() {
    const MutexLock lock(mutex_);
    restart_ = true;
}

void PlayoutBuffer::begin_pull(size_t frames, uint64_t now_us) {
    if (restart_) {
        restart_ = false;
        fall_silent();
    }
    const bool arriving = pushed_at_us_ != starved_since_push_us_;
    switch (phase_) {
        case Phase::Silent:
            control_.starving(to_ms(frames), arriving);
            start_playing(frames, now_us);
            break;
        case Phase::FadingIn:
        case Phase::Playing:
            drop_excess();
            if (ring_.size() < input_for(frames) + kReserveFrames) fade_out(frames);
            break;
        case Phase::FadingOut:
            fade_after_ = 0;
            control_.starving(to_ms(frames), arriving);
            break;
    }
}

void PlayoutBuffer::start_playing(size_t frames, uint64_t now_us) {
    const size_t wanted = to_frames(control_.target_ms() - arriving_ms(now_us)) + frames;
    if (ring_.size() < wanted || !converter_) return;
    stats_.dropped_ms += to_ms(ring_.size() - wanted);
    ring_.skip(ring_.size() - wanted);
    control_.restart();
    phase_ = Phase::FadingIn;
}

double PlayoutBuffer::arriving_ms(uint64_t now_us) const {
    const uint64_t since_push = now_us > pushed_at_us_ ? now_us - pushed_at_us_ : 0;
    return static_cast<double>(std::min(since_push, kMaxBetweenPushesUs)) / 1000;
}

void PlayoutBuffer::fade_out(size_t frames) {
    const size_t needed = input_for(frames) + kReserveFrames;
    const size_t missing = needed - ring_.size();
    fade_after_ = frames - std::min(frames, missing);
    control_.starving(to_ms(missing), false);
    starved_since_push_us_ = pushed_at_us_;
    phase_ = Phase::FadingOut;
    ++stats_.underruns;
}

void PlayoutBuffer::drop_excess() {
    const double excess_ms = control_.take_excess();
    if (excess_ms <= 0) return;
    stats_.dropped_ms += excess_ms;
    ring_.skip_smoothly(to_frames(excess_ms));
}

void PlayoutBuffer::resample(std::span<float> pcm) {
    SRC_DATA data{};
    data.src_ratio = 1 / (1 + control_.speed_ppm() * 1e-6);
    while (!pcm.empty()) {
        data.data_in = chunk_.data() + chunk_begin_ * 2;
        data.input_frames = static_cast<long>(chunk_end_ - chunk_begin_);
        data.data_out = pcm.data();
        data.output_frames = static_cast<long>(pcm.size() / 2);
        if (::src_process(converter_.get(), &data) != 0) break;
        chunk_begin_ += static_cast<size_t>(data.input_frames_used);
        pcm = pcm.subspan(static_cast<size_t>(data.output_frames_gen) * 2);
        if (chunk_begin_ == chunk_end_ && !pcm.empty() && !refill()) break;
    }
    std::ranges::fill(pcm, 0.0F);
}

// Small pieces, because the converter takes whatever it is given into a buffer of its own, where it
// would count for nothing.
bool PlayoutBuffer::refill() {
    const MutexLock lock(mutex_);
    chunk_begin_ = 0;
    chunk_end_ = ring_.pop(chunk_);
    return chunk_end_ != 0;
}

void PlayoutBuffer::apply_gain(std::span<float> pcm) {
    if (phase_ == Phase::Playing) return;
    for (size_t i = 0; i < pcm.size() / 2; ++i) {
        if (phase_ == Phase::FadingIn && fade_position_ < kFadeFrames)
            ++fade_position_;
        else if (phase_ == Phase::FadingOut && i >= fade_after_ && fade_position_ > 0)
            --fade_position_;
        const float gain = gain_.at(fade_position_);
        pcm[2 * i] *= gain;
        pcm[2 * i + 1] *= gain;
    }
    if (fade_position_ == kFadeFrames && phase_ == Phase::FadingIn) phase_ = Phase::Playing;
    if (fade_position_ == 0) fall_silent();
}

void PlayoutBuffer::fall_silent() {
    phase_ = Phase::Silent;
    fade_position_ = 0;
    chunk_begin_ = chunk_end_ = 0;
    if (converter_) ::src_reset(converter_.get());
}

void PlayoutBuffer::end_pull(size_t frames, uint64_t now_us) {
    const size_t buffered = ring_.size() + chunk_end_ - chunk_begin_;
    if (phase_ == Phase::Playing || phase_ == Phase::FadingIn) {
        if (now_us > picture_at_us_ + kPictureValidUs) {
            stats_.lag_ms.reset();
            control_.stop_aligning();
        }
        if (stats_.lag_ms) control_.align(control_.level_ms() - *stats_.lag_ms);
        control_.playing({.continuous = to_ms(buffered) + arriving_ms(now_us),
                          .least = to_ms(buffered) - to_ms(kReserveFrames)},
                         to_ms(frames) / 1000);
    }
    pulled_at_us_ = now_us;
    pulled_capture_us_.reset();
    if (capture_end_us_ && phase_ != Phase::Silent)
        pulled_capture_us_ =
            *capture_end_us_ - static_cast<uint64_t>(std::lround(to_ms(buffered) * 1000));
    stats_.playing = phase_ != Phase::Silent;
    stats_.level_ms = control_.level_ms();
    stats_.target_ms = control_.target_ms();
    stats_.drift_ppm = control_.drift_ppm();
}

std::optional<uint64_t> PlayoutBuffer::heard_at(uint64_t now_us, uint64_t device_us) const {
    if (!pulled_capture_us_) return std::nullopt;
    return *pulled_capture_us_ + (now_us - pulled_at_us_) - device_us;
}

std::optional<uint64_t> PlayoutBuffer::heard_us(uint64_t now_us, uint64_t device_us) const {
    const MutexLock lock(mutex_);
    return heard_at(now_us, device_us);
}

void PlayoutBuffer::picture_shown(uint64_t capture_us, uint64_t now_us, uint64_t device_us) {
    const MutexLock lock(mutex_);
    const auto heard = heard_at(now_us, device_us);
    if (!heard) return;
    const double lag_ms = static_cast<double>(static_cast<int64_t>(capture_us - *heard)) / 1000;
    const double weight = std::min(1.0, static_cast<double>(now_us - picture_at_us_) / kLagUs);
    stats_.lag_ms = stats_.lag_ms ? *stats_.lag_ms + weight * (lag_ms - *stats_.lag_ms) : lag_ms;
    picture_at_us_ = now_us;
}

PlayoutStats PlayoutBuffer::stats() const {
    const MutexLock lock(mutex_);
    return stats_;
}

}  // namespace ox::play
