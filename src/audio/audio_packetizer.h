#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "audio/audio_encoder.h"
#include "audio/audioparity.h"
#include "transport/encryption.h"
#include "transport/packet.h"
#include "transport/packet_numbers.h"

namespace ox {

class UdpSender;

constexpr PacketHeader audio_data_header(uint32_t sequence, uint64_t timestamp) {
    return {.stream = kStreamAudio,
            .frame_id = sequence,
            .index = 0,
            .count = 1,
            .flags = static_cast<uint8_t>(packet_flags::AUDIO | packet_flags::LAST_IN_FRAME),
            .group = 0,
            .timestamp = timestamp};
}

/// For repair symbol 0 or 1 of the block that begins at `base`; `timestamp` is its last frame's.
constexpr PacketHeader audio_repair_header(uint32_t base, size_t repair, uint64_t timestamp) {
    return {.stream = kStreamAudio,
            .frame_id = base,
            .index = static_cast<uint16_t>(repair),
            .count = audioparity::kDataFrames,
            .flags = static_cast<uint8_t>(packet_flags::AUDIO_PARITY | packet_flags::AUDIO),
            .group = 0,
            .timestamp = timestamp};
}

/// Encodes, seals and sends frames, and each fourth one's repair symbols. One thread at a time.
class AudioPacketizer {
  public:
    struct Counters {
        uint64_t sent = 0;    ///< data packets
        uint64_t errors = 0;  ///< frames that were not encoded, sealed or sent
        uint64_t parity_blocks = 0;
        uint64_t parity_symbols = 0;
        uint64_t skipped_blocks = 0;  ///< with a frame that is too long for parity
        uint64_t parity_errors = 0;
    };

    /// Whether blocks of four frames get repair symbols. Before `open`.
    void set_parity_enabled(bool enabled) { parity_enabled_ = enabled; }
    [[nodiscard]] bool parity_enabled() const { return parity_enabled_; }
    /// Source of the sequence numbers, which outlives this object. Without it they count from 0.
    /// Before `open`.
    void set_numbers(PacketNumbers& numbers) { numbers_ = &numbers; }

    /// The key has 32 bytes; `sender` is open and outlives the use. False, after an error line,
    /// when anything is unsuitable. Sequence numbers and counters continue.
    bool open(UdpSender& sender, std::span<const uint8_t> key, int sample_rate, int channels,
              int bitrate_bps);

    /// Encodes and sends one frame of `frame_samples()` samples per channel. False, after an error
    /// line, when the sequence numbers are used up; every other failure is counted.
    bool send_frame(const int16_t* pcm);

    void close();

    [[nodiscard]] int frame_samples() const { return encoder_.frame_samples(); }
    [[nodiscard]] const Counters& counters() const { return counters_; }

  private:
    bool seal_and_send(const PacketHeader& header, std::span<const uint8_t> payload);
    void send_repair_symbols();

    AudioEncoder encoder_;
    Encryption encryption_;
    UdpSender* sender_ = nullptr;
    bool parity_enabled_ = false;
    PacketNumbers own_numbers_;
    PacketNumbers* numbers_ = &own_numbers_;
    ParityBlock block_;
    ParityBlock::Shards shards_;
    std::vector<uint8_t> opus_;
    OutgoingPacket packet_;
    Counters counters_;
};

}  // namespace ox
