#include "saas/platform_url.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

TEST(PlatformUrl, SplitsAndTellsABadSchemeFromABadAuthority) {
    const std::pair<const char*, const char*> rows[] = {
        {"ws://host", "host 80"},
        {"wss://host/some/path:9", "host 443 tls"},
        {"wss://a.example:8443/x", "a.example 8443 tls"},
        {"ws://host:9000rest", "host 9000"},
        {"ws://[::1]", "[::1] 80"},
        {"ws://[::1]:9000", "[::1]:9000 80"},
        {"", "scheme"},
        {"ws:/", "scheme"},
        {"WS://host", "scheme"},
        {"http://ws://x", "scheme"},
        {"ws://", "authority"},
        {"ws://:9000", "authority"},
        {"ws://host:0", "authority"},
        {"wss://host:", "authority"},
        {"ws://host:abc", "authority"},
        {"ws://host:-1", "authority"},
        {"ws://host:65536", "authority"},
        {"ws://host:99999999999999999999", "authority"},
    };
    for (const auto& [url, expected] : rows) {
        const auto result = parse_platform_url(url);
        std::string text;
        if (const auto* endpoint = std::get_if<PlatformEndpoint>(&result)) {
            text = endpoint->host + " " + std::to_string(endpoint->port) +
                   (endpoint->tls ? " tls" : "");
        } else if (std::get<std::string>(result) ==
                   "--saas-url must start with ws:// or wss:// ('" + std::string(url) + "')") {
            text = "scheme";
        } else if (std::get<std::string>(result) ==
                   "--saas-url '" + std::string(url) + "': bad host/port") {
            text = "authority";
        }
        EXPECT_EQ(text, expected) << url;
    }
}

}  // namespace
}  // namespace ox
