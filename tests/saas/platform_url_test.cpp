#include "saas/platform_url.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

TEST(PlatformUrl, SplitsHostAndPort) {
    struct Row {
        const char* url;
        const char* host;
        unsigned port;
        bool tls;
    };
    for (const Row& row : {
             Row{"ws://host", "host", 80, false},
             Row{"wss://host/some/path:9", "host", 443, true},
             Row{"wss://a.example:8443/x", "a.example", 8443, true},
             Row{"ws://host:9000rest", "host", 9000, false},
             Row{"ws://[::1]", "[::1]", 80, false},
             Row{"ws://[::1]:9000", "[::1]:9000", 80, false},
         }) {
        const auto result = parse_platform_url(row.url);
        const auto* endpoint = std::get_if<PlatformEndpoint>(&result);
        ASSERT_NE(endpoint, nullptr) << row.url;
        EXPECT_EQ(endpoint->host, row.host) << row.url;
        EXPECT_EQ(endpoint->port, row.port) << row.url;
        EXPECT_EQ(endpoint->tls, row.tls) << row.url;
    }
}

TEST(PlatformUrl, TellsABadSchemeFromABadAuthority) {
    for (const char* url : {"", "ws:/", "ftp://x", "WS://host", "http://ws://x"}) {
        const auto result = parse_platform_url(url);
        EXPECT_EQ(std::get<std::string>(result),
                  "--saas-url must start with ws:// or wss:// ('" + std::string(url) + "')");
    }
    for (const char* url : {"ws://", "ws://:9000", "ws://host:0", "wss://host:", "ws://host:abc",
                            "ws://host:-1", "ws://host:65536", "ws://host:99999999999999999999"}) {
        const auto result = parse_platform_url(url);
        EXPECT_EQ(std::get<std::string>(result),
                  "--saas-url '" + std::string(url) + "': bad host/port");
    }
}

}  // namespace
}  // namespace ox
