#include "audio/audio_encoder.h"

#include <opus/opus.h>

#include <algorithm>
#include <array>

#include "log/log.h"

namespace ox {
namespace {

constexpr opus_int32 kMaxPacketBytes = 1200;

/// Opus frames last 2.5, 5, 10, 20, 40 or 60 ms.
bool is_opus_frame(int frame_samples, int sample_rate) {
    constexpr std::array<int, 6> kUnits{1, 2, 4, 8, 16, 24};  // of 2.5 ms
    const int64_t units = int64_t{frame_samples} * 400;
    return units % sample_rate == 0 &&
           std::find(kUnits.begin(), kUnits.end(), units / sample_rate) != kUnits.end();
}

}  // namespace

void AudioEncoder::Destroy::operator()(OpusEncoder* encoder) const {
    ::opus_encoder_destroy(encoder);
}

bool AudioEncoder::init(int sample_rate, int channels, int bitrate_bps) {
    shutdown();
    if (sample_rate < 1 || channels < 1) return false;
    const int64_t frame = int64_t{sample_rate} * kFrameMs / 1000;
    sample_rate_ = sample_rate;
    frame_samples_ = static_cast<int>(frame);
    if (frame < 1 || !is_opus_frame(frame_samples_, sample_rate)) {
        OX_ERROR("AudioEncoder: %d samples is not an Opus frame at %dHz", frame_samples_,
                 sample_rate);
        return false;
    }
    int error = OPUS_OK;
    encoder_.reset(
        ::opus_encoder_create(sample_rate, channels, OPUS_APPLICATION_RESTRICTED_LOWDELAY, &error));
    if (error != OPUS_OK || !encoder_) {
        OX_ERROR("AudioEncoder: opus_encoder_create failed: %s", ::opus_strerror(error));
        encoder_.reset();
        return false;
    }
    configure(bitrate_bps);
    log_settings(channels, bitrate_bps);
    return true;
}

void AudioEncoder::configure(int bitrate_bps) {
    // NOLINTBEGIN: libopus's requests are macros with casts in them
    OpusEncoder* encoder = encoder_.get();
    ::opus_encoder_ctl(encoder, OPUS_SET_BITRATE(bitrate_bps));
    if (::opus_encoder_ctl(encoder, OPUS_SET_VBR(0)) != OPUS_OK) {
        OX_WARN("AudioEncoder: OPUS_SET_VBR(0) refused - the stream stays VBR");
    }
    ::opus_encoder_ctl(encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    ::opus_encoder_ctl(encoder, OPUS_SET_DTX(0));
    ::opus_encoder_ctl(encoder, OPUS_SET_PACKET_LOSS_PERC(5));
    if (::opus_encoder_ctl(encoder, OPUS_GET_APPLICATION(&application_)) != OPUS_OK) {
        application_ = -1;
    }
    if (::opus_encoder_ctl(encoder, OPUS_GET_LOOKAHEAD(&lookahead_)) != OPUS_OK) lookahead_ = -1;
    if (::opus_encoder_ctl(encoder, OPUS_GET_VBR(&vbr_)) != OPUS_OK) vbr_ = -1;
    // NOLINTEND
}

double AudioEncoder::lookahead_ms() const {
    return lookahead_ < 1 ? 0.0 : lookahead_ * 1000.0 / sample_rate_;
}

void AudioEncoder::log_settings(int channels, int bitrate_bps) const {
    OX_INFO(
        "AudioEncoder: Opus %dHz %dch %dbps %s, %s, %d-sample frames (%d ms), lookahead %.1f ms -> "
        "codec delay %.1f ms",
        sample_rate_, channels, bitrate_bps,
        application_ == OPUS_APPLICATION_RESTRICTED_LOWDELAY ? "RESTRICTED_LOWDELAY"
                                                             : "NOT low-delay",
        vbr_ != 0 ? "VBR" : "CBR", frame_samples_, kFrameMs, lookahead_ms(), codec_delay_ms());
}

int AudioEncoder::encode(const int16_t* pcm, int samples_per_channel, std::vector<uint8_t>& out) {
    if (!encoder_ || pcm == nullptr || samples_per_channel < 1) return -1;
    out.resize(kMaxPacketBytes);
    const int length =
        ::opus_encode(encoder_.get(), pcm, samples_per_channel, out.data(), kMaxPacketBytes);
    if (length < 0) {
        OX_ERROR("AudioEncoder: opus_encode failed: %s", ::opus_strerror(length));
        out.clear();
        return length;
    }
    out.resize(static_cast<size_t>(length));
    return length;
}

}  // namespace ox
