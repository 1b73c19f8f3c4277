#include "rtp_h264.h"

#include <array>
#include <cstddef>
#include <utility>

namespace ox::bench {
namespace {

constexpr uint8_t kStapA = 24;
constexpr uint8_t kFuA = 28;
constexpr std::array<uint8_t, 4> kStartCode = {0, 0, 0, 1};

uint16_t big_endian_16(std::span<const uint8_t> bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

// The payload behind the header (RFC 3550 section 5.1); empty for a malformed packet.
std::span<const uint8_t> payload_of(std::span<const uint8_t> packet) {
    constexpr size_t kFixedHeader = 12;
    if (packet.size() < kFixedHeader || packet[0] >> 6 != 2) return {};
    size_t begin = kFixedHeader + 4 * size_t{packet[0] & 0x0FU};
    if ((packet[0] & 0x10) != 0) {
        if (packet.size() < begin + 4) return {};
        begin += 4 + 4 * size_t{big_endian_16(packet.subspan(begin + 2))};
    }
    size_t end = packet.size();
    if ((packet[0] & 0x20) != 0) end -= packet.back() <= end ? packet.back() : end;
    return begin < end ? packet.subspan(begin, end - begin) : std::span<const uint8_t>{};
}

}  // namespace

std::optional<std::vector<uint8_t>> RtpH264::push(std::span<const uint8_t> packet) {
    const auto payload = payload_of(packet);
    if (payload.empty()) return std::nullopt;
    const uint16_t sequence = big_endian_16(packet.subspan(2));
    if (expected_) lost_ += static_cast<uint16_t>(sequence - *expected_);
    expected_ = static_cast<uint16_t>(sequence + 1);

    const uint8_t type = payload[0] & 0x1F;
    if (type == kStapA) {
        append_aggregate(payload.subspan(1));
    } else if (type == kFuA) {
        append_fragment(payload);
    } else {
        append_unit(payload);
    }
    const bool marker = (packet[1] & 0x80) != 0;
    if (!marker || unit_.empty()) return std::nullopt;
    return std::exchange(unit_, {});
}

void RtpH264::append_unit(std::span<const uint8_t> unit) {
    unit_.insert(unit_.end(), kStartCode.begin(), kStartCode.end());
    unit_.insert(unit_.end(), unit.begin(), unit.end());
}

void RtpH264::append_aggregate(std::span<const uint8_t> units) {
    while (units.size() > 2) {
        const size_t size = big_endian_16(units);
        if (size == 0 || size > units.size() - 2) return;
        append_unit(units.subspan(2, size));
        units = units.subspan(2 + size);
    }
}

void RtpH264::append_fragment(std::span<const uint8_t> fragment) {
    if (fragment.size() < 3) return;
    const bool first = (fragment[1] & 0x80) != 0;
    if (first) {
        const auto header = static_cast<uint8_t>((fragment[0] & 0xE0) | (fragment[1] & 0x1F));
        append_unit({&header, 1});
    }
    unit_.insert(unit_.end(), fragment.begin() + 2, fragment.end());
}

}  // namespace ox::bench
