#include <gtest/gtest.h>

#include "saas/reconnect_backoff.h"
#include "saas/terminal_cache.h"

namespace ox {
namespace {

TEST(ReconnectBackoff, DoublesUpToTheLimitAndStartsAgainAfterAConnection) {
    ReconnectBackoff backoff({});
    const auto wait = [&](bool handshaken, uint16_t code = 0) {
        return backoff.next_wait(handshaken, code).count();
    };
    for (const int seconds : {1, 2, 4, 8, 16, 30, 30})
        EXPECT_EQ(wait(false), 1000 * seconds);
    EXPECT_EQ(wait(true, 1006), 1000);
    EXPECT_EQ(wait(false), 2000);
    EXPECT_EQ(wait(true, kCloseReplaced), 30'000);
    EXPECT_EQ(wait(false), 2000);
}

TEST(TerminalCache, KeepsTheNewestAndListsThemByKey) {
    TerminalCache cache;
    cache.store("zz", "first");
    cache.store("aa", "second");
    for (size_t i = 0; i < TerminalCache::kMaxEntries - 2; ++i)
        cache.store(std::to_string(i), "x");
    cache.store("zz", "renewed");  // stored anew, so no longer the oldest
    cache.store("new", "y");
    EXPECT_EQ(cache.entries().size(), TerminalCache::kMaxEntries);
    EXPECT_FALSE(cache.entries().contains("aa"));
    EXPECT_EQ(cache.entries().rbegin()->second.text, "renewed");
    EXPECT_EQ(cache.entries().begin()->first, "0");
}

}  // namespace
}  // namespace ox
