#include <opus/opus.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <random>

#include "app/selftest/checks.h"
#include "app/session/session_media.h"
#include "audio/audio_encoder.h"
#include "base/c_handle.h"

namespace ox::selftest {
namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kFrameSamples = 240;
constexpr size_t kPacketBytes = 80;
constexpr int kLongestOpusFrame = 5760;  ///< samples of 120 ms
constexpr size_t kFramesPerSound = 20;

using Sound = double (*)(size_t sample);

double silence(size_t /*sample*/) {
    return 0;
}
double tone(size_t sample) {
    return 12000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(sample) / kRate);
}
double noise(size_t /*sample*/) {
    static std::minstd_rand random(1);
    return std::uniform_real_distribution<double>(-32000, 32000)(random);
}

/// Packets of quiet, tonal and noisy sound in frames as the audio stream makes them; none when the
/// encoder refuses one.
std::vector<Bytes> encode_sounds(AudioEncoder& encoder) {
    const int samples = encoder.frame_samples();
    if (samples < 1) return {};
    std::vector<Bytes> packets;
    std::vector<int16_t> pcm(static_cast<size_t>(samples) * kChannels);
    for (const Sound sound : {silence, tone, noise}) {
        for (size_t frame = 0; frame < kFramesPerSound; ++frame) {
            for (size_t i = 0; i < pcm.size(); ++i) {
                const size_t sample = (frame * pcm.size() + i) / kChannels;
                pcm[i] = static_cast<int16_t>(sound(sample));
            }
            Bytes packet;
            if (encoder.encode(pcm.data(), samples, packet) < 1) return {};
            packets.push_back(std::move(packet));
        }
    }
    return packets;
}

bool all_packets(const std::vector<Bytes>& packets, bool (*holds)(const Bytes&)) {
    return !packets.empty() && std::ranges::all_of(packets, holds);
}

/// The configuration number in a packet's table-of-contents byte (RFC 6716 section 3.1).
unsigned toc_configuration(const Bytes& packet) {
    return packet.front() >> 3U;
}

bool is_celt(const Bytes& packet) {
    return toc_configuration(packet) >= 16;
}

/// Samples per channel at 48 kHz by the table-of-contents byte of a CELT packet, 0 for any other.
int toc_samples(const Bytes& packet) {
    constexpr std::array<int, 4> kCeltFrames{120, 240, 480, 960};
    if (!is_celt(packet)) return 0;
    const unsigned code = packet.front() & 0x03U;
    const int frames = code == 0 ? 1 : code < 3 ? 2 : packet.at(1) & 0x3F;
    return frames * kCeltFrames[toc_configuration(packet) & 0x03U];
}

using Decoder = CHandle<OpusDecoder, ::opus_decoder_destroy>;
using Pcm = std::array<int16_t, size_t{kLongestOpusFrame} * kChannels>;

bool decodes_to_frames(OpusDecoder* decoder, const std::vector<Bytes>& packets) {
    if (decoder == nullptr || packets.empty()) return false;
    Pcm pcm{};
    return std::ranges::all_of(packets, [&](const Bytes& packet) {
        return ::opus_decode(decoder, packet.data(), static_cast<opus_int32>(packet.size()),
                             pcm.data(), kLongestOpusFrame, 0) == kFrameSamples;
    });
}

/// A decoder replaces a lost packet by sound of the length of the one before.
bool conceals_one_frame(OpusDecoder* decoder) {
    if (decoder == nullptr) return false;
    opus_int32 lost = 0;
    Pcm pcm{};
    // NOLINTNEXTLINE: libopus's request is a macro with a cast in it
    return ::opus_decoder_ctl(decoder, OPUS_GET_LAST_PACKET_DURATION(&lost)) == OPUS_OK &&
           lost * 1000 == 5 * kRate &&
           ::opus_decode(decoder, nullptr, 0, pcm.data(), lost, 0) == kFrameSamples;
}

void check_encoder(const AudioEncoder& encoder) {
    check(AudioEncoder::kFrameMs == 5 && encoder.frame_samples() == kFrameSamples,
          "frame is 5 ms = 240 samples per channel");
    check(encoder.application() == OPUS_APPLICATION_RESTRICTED_LOWDELAY,
          "libopus reads back RESTRICTED_LOWDELAY");
    check(encoder.vbr() == 0, "libopus reads back CBR (VBR=0)");
    check(encoder.lookahead() == 120, "lookahead is 2.5 ms (120 samples), not 6.5 ms");
    check(std::abs(encoder.codec_delay_ms() - 7.5) < 0.001,
          "codec delay 7.5 ms (was 16.5 ms with APPLICATION_AUDIO at 10 ms)");
}

}  // namespace

void check_low_delay_audio() {
    AudioEncoder encoder;
    check(SessionAudio::kSampleRate == kRate && SessionAudio::kChannels == kChannels &&
              SessionAudio::kBitrateBps == 128000 &&
              encoder.init(SessionAudio::kSampleRate, SessionAudio::kChannels,
                           SessionAudio::kBitrateBps),
          "Opus encoder initialises at 48 kHz stereo 128 kbit/s");
    check_encoder(encoder);

    int error = OPUS_OK;
    const Decoder decoder(
        ::opus_decoder_create(SessionAudio::kSampleRate, SessionAudio::kChannels, &error));
    check(decoder != nullptr && error == OPUS_OK, "reference Opus decoder created");

    const std::vector<Bytes> packets = encode_sounds(encoder);
    check(all_packets(packets, [](const Bytes& packet) { return packet.size() == kPacketBytes; }),
          "every packet is 80 bytes (CBR at 128 kbit/s, 5 ms)");
    check(all_packets(packets, is_celt),
          "every packet is CELT (no SILK, so no in-band FEC to lose)");
    check(all_packets(packets,
                      [](const Bytes& packet) {
                          const int samples = ::opus_packet_get_nb_samples(
                              packet.data(), static_cast<opus_int32>(packet.size()), kRate);
                          return samples == kFrameSamples && toc_samples(packet) == samples;
                      }),
          "TOC parser agrees with opus_packet_get_nb_samples (240)");
    check(decodes_to_frames(decoder.get(), packets),
          "a decoder that does not know the frame size gets 240 samples");
    check(conceals_one_frame(decoder.get()), "PLC for a lost 5 ms frame produces exactly 5 ms");
}

}  // namespace ox::selftest
