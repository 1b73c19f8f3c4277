#pragma once

#include <cstdint>
#include <string>

// The IPv4 address for the media. A launcher behind the agent's own router is better reached at its
// private address, which it alone knows; one on the internet where its TCP connection came from.

namespace ox {

/// Whether `text` is dotted IPv4 in 10/8, 172.16/12, 192.168/16 or 127/8.
bool is_private_ip(const std::string& text);

/// What the handshake does with the address that a launcher reports of itself.
enum class UdpOverride : uint8_t {
    none,       ///< none was reported
    same,       ///< it is the TCP peer's
    overrides,  ///< private: replaces the TCP peer's
    ignored,    ///< another public address, or no address: the TCP peer's is used
};
UdpOverride judge_udp_override(const std::string& reported, const std::string& tcp_remote);

enum class UdpDestination : uint8_t {
    unknown,               ///< neither address is known
    tcp_remote,            ///< nothing was reported
    reported,              ///< the reported address
    tcp_remote_not_local,  ///< the reported one is private but the peer is on the internet
};
UdpDestination choose_udp_destination(const std::string& udp_ip, const std::string& tcp_remote);

}  // namespace ox
