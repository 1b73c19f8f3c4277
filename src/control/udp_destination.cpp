#include "control/udp_destination.h"

#include <arpa/inet.h>

namespace ox {

bool is_private_ip(const std::string& text) {
    in_addr address{};
    // inet_pton would ignore what follows a NUL byte.
    if (text.find('\0') != std::string::npos) return false;
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return false;
    const uint32_t ip = ntohl(address.s_addr);
    return (ip >> 24) == 10 || (ip >> 20) == (172u << 4 | 1) || (ip >> 16) == (192u << 8 | 168) ||
           (ip >> 24) == 127;
}

UdpOverride judge_udp_override(const std::string& reported, const std::string& tcp_remote) {
    if (reported.empty()) return UdpOverride::none;
    if (reported == tcp_remote) return UdpOverride::same;
    return is_private_ip(reported) ? UdpOverride::overrides : UdpOverride::ignored;
}

UdpDestination choose_udp_destination(const std::string& udp_ip, const std::string& tcp_remote) {
    if (udp_ip.empty()) {
        return tcp_remote.empty() ? UdpDestination::unknown : UdpDestination::tcp_remote;
    }
    const bool unreachable = is_private_ip(udp_ip) && !tcp_remote.empty() && udp_ip != tcp_remote &&
                             !is_private_ip(tcp_remote);
    return unreachable ? UdpDestination::tcp_remote_not_local : UdpDestination::reported;
}

}  // namespace ox
