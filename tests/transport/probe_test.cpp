#include "transport/probe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

namespace ox {
namespace {

using namespace std::string_literals;

TEST(Probe, KindOfDatagram) {
    struct Case {
        std::string datagram;
        bool token;
        bool configured_source;
        ProbeKind kind;
    };
    const std::string token = "\x00\x01TOKEN\xff"s;
    const Case cases[] = {
        {"OXP1", false, false, ProbeKind::HolePunch},
        {"OXP1" + std::string(60, 'x'), false, false, ProbeKind::HolePunch},
        {"OXP2", false, true, ProbeKind::Invalid},
        {"", false, true, ProbeKind::Invalid},
        {"OXP1" + token, true, false, ProbeKind::HolePunch},
        {"OXP1" + token.substr(0, 7), true, true, ProbeKind::Invalid},
        {"OXP1" + token + "x", true, true, ProbeKind::Invalid},
        {"OXP1\x01\x01TOKEN\xff", true, true, ProbeKind::Invalid},
        {"OXP1", true, true, ProbeKind::Invalid},
        {"\0"s, false, true, ProbeKind::Legacy},
        {"\0"s, true, true, ProbeKind::Legacy},
        {"\0"s, false, false, ProbeKind::Invalid},
        {"\0\0"s, false, true, ProbeKind::Invalid},
    };
    ProbeToken token_bytes{};
    std::copy(token.begin(), token.end(), token_bytes.begin());
    const in_addr configured{::inet_addr("192.0.2.7")};
    const in_addr other{::inet_addr("192.0.2.8")};
    for (const Case& c : cases) {
        const std::vector<uint8_t> bytes(c.datagram.begin(), c.datagram.end());
        EXPECT_EQ(classify_probe(bytes, c.token ? std::optional(token_bytes) : std::nullopt,
                                 c.configured_source ? configured : other, configured),
                  c.kind)
            << testing::PrintToString(c.datagram) << (c.token ? " with token" : "");
    }
}

}  // namespace
}  // namespace ox
