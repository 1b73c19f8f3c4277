#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ox {

enum class InputKind : uint8_t {
    MouseMotion = 0,   ///< relative motion with the button state
    MouseButtons = 1,  ///< button state alone
    Wheel = 2,
    KeyDown = 3,
    KeyUp = 4,
    KeyframeRequest = 6,
    RfiRequest = 7,     ///< the launcher names the frames it lost
    MediaFeedback = 8,  ///< the launcher's view of the stream
};

/// Kinds that the session handles instead of the virtual device.
constexpr bool is_feedback(uint8_t kind) {
    return kind >= static_cast<uint8_t>(InputKind::KeyframeRequest) &&
           kind <= static_cast<uint8_t>(InputKind::MediaFeedback);
}

/// One decrypted input event in wire layout: 28 bytes, packed, little-endian.
struct [[gnu::packed]] InputPacket {
    static constexpr uint8_t kVersion = 1;
    static constexpr size_t kPayloadOffset = 12;  ///< of the 16 bytes that kinds 6 to 8 carry
    static constexpr size_t kPayloadBytes = 16;

    uint8_t version = kVersion;
    uint8_t kind = 0;  ///< InputKind
    uint16_t seq = 0;  ///< counts up, wraps
    std::array<uint8_t, 8> unused{};
    int16_t data0 = 0;    ///< dx, or virtual-key code
    int16_t data1 = 0;    ///< dy, wheel delta, or scan code | flags << 8
    uint8_t buttons = 0;  ///< bit 0 left, bit 1 right, bit 2 middle
    std::array<uint8_t, 11> unused_tail{};

    /// Scan code of kinds 3 and 4 (set 1).
    [[nodiscard]] uint8_t scan_code() const {
        return static_cast<uint8_t>(static_cast<uint16_t>(data1) & 0xFFU);
    }
    /// Bit 1 of the key flags: the key belongs to the extended set.
    [[nodiscard]] bool extended_key() const {
        return ((static_cast<uint16_t>(data1) >> 8U) & 0x02U) != 0;
    }
};
static_assert(sizeof(InputPacket) == 28);

/// A sealed input datagram: nonce, ciphertext of one InputPacket, Poly1305 tag (RFC 8439).
inline constexpr size_t kInputNonceBytes = 12;
inline constexpr size_t kInputTagBytes = 16;
inline constexpr size_t kInputDatagramBytes =
    kInputNonceBytes + sizeof(InputPacket) + kInputTagBytes;
static_assert(kInputDatagramBytes == 56);

/// Opens one sealed datagram (ChaCha20-Poly1305 of RFC 8439, no additional data) under a 32-byte
/// key. False, with `packet` untouched, when its length is wrong or anything in it was altered.
bool open_input_datagram(const uint8_t* key, std::span<const uint8_t> datagram,
                         InputPacket& packet);

/// An RfiRequest's 16 bytes at packet offset 12, little-endian: u32 last delivered, u32 first and
/// last missing, u8 flags (bit 0: epoch), u8 attempt, two zero bytes.
struct RfiRequest {
    uint32_t last_delivered = 0;
    uint32_t first_missing = 0;
    uint32_t last_missing = 0;
    bool epoch = false;
    uint8_t attempt = 0;
    bool all_zero = false;  ///< from an older launcher: a keyframe request
};
RfiRequest parse_rfi_request(const InputPacket& packet);

/// Name of the first rule that the request breaks; empty when it is valid.
std::string_view rfi_rejection(const RfiRequest& request);

/// Payload of a MediaFeedback: u16 loss in hundredths of a percent, u16 round trip in ms, u16
/// decoded frames per second x 10, u8 flags (bit 0: keyframe wanted), the rest zero.
struct MediaFeedback {
    float loss_pct = 0;
    float rtt_ms = 0;
    float decoded_fps = 0;
    bool keyframe_wanted = false;
};
MediaFeedback parse_media_feedback(const InputPacket& packet);

}  // namespace ox
