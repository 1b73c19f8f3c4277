#include "audio/audio_packetizer.h"

#include "base/clock.h"
#include "log/log.h"
#include "transport/udp_sender.h"

namespace ox {

bool AudioPacketizer::open(UdpSender& sender, std::span<const uint8_t> key, int sample_rate,
                           int channels, int bitrate_bps) {
    if (key.size() != Encryption::kKeyBytes) {
        OX_ERROR("AudioStream: refusing to start with a %zu-byte audio key (want %zu)", key.size(),
                 Encryption::kKeyBytes);
        return false;
    }
    if (!sender.is_open()) {
        OX_ERROR("AudioStream: UDP sender is not open");
        return false;
    }
    if (!encryption_.set_key(key.data(), key.size())) {
        OX_ERROR("AudioStream: Encryption::set_key failed");
        return false;
    }
    if (!encoder_.init(sample_rate, channels, bitrate_bps)) {
        OX_ERROR("AudioStream: encoder init failed");
        return false;
    }
    sender_ = &sender;
    return true;
}

void AudioPacketizer::close() {
    encoder_.shutdown();
    block_.reset();
}

bool AudioPacketizer::send_frame(const int16_t* pcm) {
    if (encoder_.encode(pcm, encoder_.frame_samples(), opus_) < 1) {
        ++counters_.errors;
        return true;
    }
    const auto sequence = numbers_->take();
    if (!sequence) {
        OX_ERROR("AudioStream: all sequence numbers of this key are used up — stopping audio");
        return false;
    }
    const uint64_t timestamp = steady_now_us();
    const bool block_complete = parity_enabled_ && block_.add(*sequence, opus_, timestamp);
    if (seal_and_send(audio_data_header(*sequence, timestamp), opus_)) {
        ++counters_.sent;
    } else {
        ++counters_.errors;
    }
    if (block_complete) send_repair_symbols();
    return true;
}

void AudioPacketizer::send_repair_symbols() {
    if (!block_.fits()) {
        ++counters_.skipped_blocks;
        return;
    }
    if (block_.encode(shards_) != audioparity::Guard::kOk) {
        ++counters_.parity_errors;
        return;
    }
    bool any_sent = false;
    for (size_t i = 0; i < audioparity::kRepairs; ++i) {
        if (seal_and_send(audio_repair_header(block_.base(), i, block_.last_timestamp()),
                          {shards_.bytes[i].data(), shards_.lengths[i]})) {
            ++counters_.parity_symbols;
            any_sent = true;
        } else {
            ++counters_.parity_errors;
        }
    }
    if (any_sent) ++counters_.parity_blocks;
}

bool AudioPacketizer::seal_and_send(const PacketHeader& header, std::span<const uint8_t> payload) {
    packet_.header = header;
    packet_.payload.assign(payload);
    return encryption_.seal(packet_) && sender_->send_packet(packet_);
}

}  // namespace ox
