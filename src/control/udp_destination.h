#pragma once

#include <cstdint>
#include <string>

// Which IPv4 address the media of a session goes to. A launcher behind the same router as the agent
// is better reached at its private address, which it alone knows; a launcher on the internet only
// at the address its TCP connection came from.

namespace ox {

/// Dotted IPv4 in 10/8, 172.16/12, 192.168/16 or 127/8. Anything that is no such text is not
/// private.
bool is_private_ip(const std::string& text);

/// What becomes of the address a launcher reports of itself at the handshake.
enum class UdpOverride : uint8_t {
    none,       ///< it reported none
    same,       ///< it is the TCP peer's
    overrides,  ///< private: kept instead of the TCP peer's
    ignored,    ///< a different public address or no address: the TCP peer's is taken
};
UdpOverride judge_udp_override(const std::string& reported, const std::string& tcp_remote);

/// Where the kept address leads once media is to be sent.
enum class UdpDestination : uint8_t {
    unknown,               ///< neither address is known
    tcp_remote,            ///< nothing was reported
    reported,              ///< the reported address
    tcp_remote_not_local,  ///< the reported one is private but the peer is on the internet
};
UdpDestination choose_udp_destination(const std::string& udp_ip, const std::string& tcp_remote);

}  // namespace ox
