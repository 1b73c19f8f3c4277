#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "saas/system_info.h"

namespace ox {

/// Where the backend is, and what the agent tells it about itself.
struct SaasConfig {
    std::string host;  ///< name or address, an IPv6 address with or without its brackets
    uint16_t port = 0;
    bool tls = false;         ///< wss://
    std::string agent_token;  ///< secret; sent in the upgrade request, never logged

    std::string agent_version = "1.0.0";
    SystemInfo system_info;
    uint16_t port_base = 0;
    uint32_t max_fps = 0;        ///< 0: not stated
    std::string max_resolution;  ///< "1920x1080"; empty: not stated
    std::vector<std::string> supported_codecs;
};

}  // namespace ox
