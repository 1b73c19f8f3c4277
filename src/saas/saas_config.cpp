#include "saas/saas_config.h"

#include <cstdlib>

namespace ox {

std::variant<PlatformEndpoint, std::string> parse_platform_url(std::string_view url) {
    constexpr std::string_view kPlain = "ws://";
    constexpr std::string_view kTls = "wss://";
    PlatformEndpoint endpoint;
    endpoint.tls = url.starts_with(kTls);
    if (!endpoint.tls && !url.starts_with(kPlain)) {
        return "--saas-url must start with ws:// or wss:// ('" + std::string(url) + "')";
    }
    std::string_view authority = url.substr(endpoint.tls ? kTls.size() : kPlain.size());
    authority = authority.substr(0, authority.find('/'));

    // No range check, as for every number of the command line: the low 16 bits count.
    endpoint.port = endpoint.tls ? 443 : 80;
    size_t host_end = authority.size();
    const size_t colon = authority.rfind(':');
    if (colon != authority.npos && authority.find(']') == authority.npos) {
        host_end = colon;
        const std::string digits(authority.substr(colon + 1));
        endpoint.port = static_cast<uint16_t>(std::strtol(digits.c_str(), nullptr, 10));
    }
    if (host_end == 0 || endpoint.port == 0) {
        return "--saas-url '" + std::string(url) + "': bad host/port";
    }
    endpoint.host = authority.substr(0, host_end);
    return endpoint;
}

}  // namespace ox
