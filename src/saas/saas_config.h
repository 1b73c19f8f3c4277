#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "saas/system_info.h"

namespace ox {

struct PlatformEndpoint {
    std::string host;   ///< name or address, an IPv6 address with or without its brackets
    uint16_t port = 0;  ///< never 0
    bool tls = false;   ///< wss://
};

/// `ws://` or `wss://`, host, optional port (80, 443) and an ignored path; an authority with a "]"
/// is a host. Else the error for the log. Pure.
std::variant<PlatformEndpoint, std::string> parse_platform_url(std::string_view url);

/// The backend, and what the agent registers with.
struct SaasConfig {
    PlatformEndpoint backend;
    std::string agent_token;  ///< secret; sent in the upgrade request, never logged

    std::string agent_version = "1.0.0";
    SystemInfo system_info;
    uint16_t port_base = 0;
    uint32_t max_fps = 0;        ///< 0: not stated
    std::string max_resolution;  ///< "1920x1080"; empty: not stated
    std::vector<std::string> supported_codecs;
};

}  // namespace ox
