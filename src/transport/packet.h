#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

namespace ox {

inline constexpr uint32_t kStreamVideo = 1;
inline constexpr uint32_t kStreamAudio = 2;

/// Bits of `PacketHeader::flags`.
namespace packet_flags {
inline constexpr uint8_t KEYFRAME = 0x01;        ///< packet of a picture that can start a decoder
inline constexpr uint8_t FEC_PACKET = 0x02;      ///< video repair packet
inline constexpr uint8_t AUDIO = 0x04;           ///< packet of the audio stream
inline constexpr uint8_t LAST_IN_FRAME = 0x08;   ///< last data packet of its frame
inline constexpr uint8_t RECOVERY_POINT = 0x10;  ///< reserved: recovery without a keyframe
inline constexpr uint8_t AUDIO_PARITY = 0x20;    ///< audio repair symbol
}  // namespace packet_flags

/// The clear header of a media datagram: 22 bytes, packed, little-endian. Also the additional data.
struct [[gnu::packed]] PacketHeader {
    uint32_t stream = 0;     ///< kStreamVideo or kStreamAudio
    uint32_t frame_id = 0;   ///< video: frame number; audio: sequence number
    uint16_t index = 0;      ///< packet inside the frame; repair packets follow the data packets
    uint16_t count = 0;      ///< data packets of the frame
    uint8_t flags = 0;       ///< packet_flags
    uint8_t group = 0;       ///< 0, or in a video repair packet 0x80 | parity group modulo 128
    uint64_t timestamp = 0;  ///< capture time in steady-clock us, in data packet 0 of a video frame
};
static_assert(sizeof(PacketHeader) == 22);

inline constexpr size_t kHeaderBytes = sizeof(PacketHeader);
inline constexpr size_t kTagBytes = 16;             ///< Poly1305 tag behind every sealed payload
inline constexpr size_t kMaxDatagramBytes = 1264;   ///< largest datagram the sender takes
inline constexpr size_t kVideoPayloadBytes = 1162;  ///< bitstream bytes in one video packet

/// The bytes of one packet behind its header, stored inline: a vector of packets that is cleared
/// and refilled allocates nothing. Plaintext first; sealing replaces it by ciphertext and tag.
class PacketPayload {
  public:
    /// More than the largest legal payload, so that the sender can refuse an oversized one.
    static constexpr size_t kCapacity = 1280;

    // The bytes stay uninitialised; `size_` of them are valid.
    // NOLINTBEGIN(cppcoreguidelines-pro-type-member-init)
    PacketPayload() noexcept {}
    explicit PacketPayload(std::span<const uint8_t> bytes) noexcept { assign(bytes); }
    PacketPayload(const PacketPayload& other) noexcept { assign(other.bytes()); }
    // NOLINTEND(cppcoreguidelines-pro-type-member-init)
    PacketPayload& operator=(const PacketPayload& other) noexcept {
        if (this != &other) assign(other.bytes());
        return *this;
    }
    ~PacketPayload() = default;

    [[nodiscard]] uint8_t* data() noexcept { return bytes_.data(); }
    [[nodiscard]] const uint8_t* data() const noexcept { return bytes_.data(); }
    [[nodiscard]] size_t size() const noexcept { return size_; }
    [[nodiscard]] std::span<const uint8_t> bytes() const noexcept { return {data(), size_}; }

    /// Sets the size without touching the bytes. `size` is at most `kCapacity`.
    void resize(size_t size) noexcept {
        assert(size <= kCapacity);
        size_ = static_cast<uint16_t>(size);
    }
    void assign(std::span<const uint8_t> bytes) noexcept {
        resize(bytes.size());
        std::copy(bytes.begin(), bytes.end(), bytes_.begin());
    }

  private:
    std::array<uint8_t, kCapacity> bytes_;
    uint16_t size_ = 0;
};

struct OutgoingPacket {
    PacketHeader header;
    PacketPayload payload;
};

}  // namespace ox
