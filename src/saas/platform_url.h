#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace ox {

/// Where the platform's backend listens.
struct PlatformEndpoint {
    std::string host;   ///< name or address; an IPv6 address keeps its brackets
    uint16_t port = 0;  ///< never 0
    bool tls = false;   ///< wss://
};

/// Splits a backend URL: `ws://` or `wss://`, host, optional port (80 or 443 without one), and a
/// path that is ignored. An authority with a "]" is a host as a whole. The second alternative is
/// the text of the error as it is to be logged. Pure.
std::variant<PlatformEndpoint, std::string> parse_platform_url(std::string_view url);

}  // namespace ox
