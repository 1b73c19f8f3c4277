#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

#include "transport/packet_header.h"

namespace ox {

/// The bytes of one packet behind its header, held in place: a vector of packets that is cleared
/// and filled again allocates nothing. Plaintext first; sealing replaces it by ciphertext and tag.
class PacketPayload {
  public:
    /// Room for the largest legal payload and some more, so that an oversized one can be told
    /// apart and refused by the sender.
    static constexpr size_t kCapacity = 1280;

    // The bytes stay unset; `size_` says how many count.
    // NOLINTBEGIN(cppcoreguidelines-pro-type-member-init)
    PacketPayload() noexcept {}
    explicit PacketPayload(std::span<const uint8_t> bytes) noexcept { assign(bytes); }
    // Copying moves only the bytes that count.
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

/// One media packet on its way out.
struct OutgoingPacket {
    PacketHeader header;
    PacketPayload payload;
};

}  // namespace ox
