#include "transport/probe.h"

#include <sodium.h>

#include <algorithm>
#include <array>

namespace ox {
namespace {

constexpr std::array<uint8_t, 4> kMagic{'O', 'X', 'P', '1'};

bool is_hole_punch(std::span<const uint8_t> datagram, const std::optional<ProbeToken>& token) {
    if (datagram.size() < kMagic.size()) return false;
    if (!std::equal(kMagic.begin(), kMagic.end(), datagram.begin())) return false;
    if (!token) return true;
    const std::span<const uint8_t> shown = datagram.subspan(kMagic.size());
    return shown.size() == token->size() &&
           sodium_memcmp(shown.data(), token->data(), token->size()) == 0;
}

}  // namespace

ProbeKind classify_probe(std::span<const uint8_t> datagram, const std::optional<ProbeToken>& token,
                         in_addr source, in_addr configured) {
    if (is_hole_punch(datagram, token)) return ProbeKind::HolePunch;
    const bool single_zero = datagram.size() == 1 && datagram[0] == 0;
    if (single_zero && source.s_addr == configured.s_addr) return ProbeKind::Legacy;
    return ProbeKind::Invalid;
}

}  // namespace ox
