#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ox {

/// Values of `InputPacket::kind`.
enum class InputKind : uint8_t {
    MouseMotion = 0,   ///< relative motion with the button state
    MouseButtons = 1,  ///< button state alone
    Wheel = 2,
    KeyDown = 3,
    KeyUp = 4,
    KeyframeRequest = 6,  ///< plain wish for a keyframe
    RfiRequest = 7,       ///< the launcher names the frames it lost
    MediaFeedback = 8,    ///< the launcher's view of the stream
};

/// Kinds that are the session's business and not the virtual device's.
constexpr bool is_feedback(uint8_t kind) {
    return kind >= static_cast<uint8_t>(InputKind::KeyframeRequest) &&
           kind <= static_cast<uint8_t>(InputKind::MediaFeedback);
}

/// One input event as it lies on the wire, once opened: 28 bytes, packed, little-endian.
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

}  // namespace ox
