// Datagrams from anywhere on the ports that wait for hole-punch probes.

#include <arpa/inet.h>

#include <cstring>

#include "fuzz.h"
#include "transport/probe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const bool own_address = (data[0] & 1U) != 0;
    std::optional<ox::ProbeToken> token;
    if ((data[0] & 2U) != 0) token.emplace(std::array<uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8});
    const in_addr launcher{.s_addr = htonl(0x0A000001)};
    const in_addr stranger{.s_addr = htonl(0x08080404)};
    const std::span<const uint8_t> datagram(data + 1, size - 1);
    const auto kind =
        ox::classify_probe(datagram, token, own_address ? launcher : stranger, launcher);
    if (kind == ox::ProbeKind::Legacy) OX_FUZZ_REQUIRE(own_address && datagram.size() == 1);
    if (kind == ox::ProbeKind::HolePunch) {
        OX_FUZZ_REQUIRE(std::memcmp(datagram.data(), "OXP1", 4) == 0);
        OX_FUZZ_REQUIRE(!token || std::memcmp(datagram.data() + 4, token->data(), 8) == 0);
    }
    return 0;
}
