#include "check/portal_probe.h"

#include "support/wayland_test.h"

namespace ox {
namespace {

class PortalProbe : public test::WaylandTest {};

TEST_F(PortalProbe, TellsWhetherTheDesktopWouldAskAndAsksNobody) {
    const test::TempDir folder;
    const RestoreTokenFile token_file(folder.file("token"));
    const auto probe = [&] {
        return probe_portal(desktop_->bus_address(), token_file, std::chrono::seconds(20));
    };
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "no portal";
    using Row = std::tuple<const char*, const char*, std::vector<std::string>, PortalAnswer>;
    for (const auto& [name, token, portal, answer] : {
             Row{"no ScreenCast", nullptr, {"version=0"}, PortalAnswer::Missing},
             {"windows only", nullptr, {"sources=2"}, PortalAnswer::Missing},
             {"no token", nullptr, {"known-token=abc"}, PortalAnswer::Asks},
             {"a revoked token", "revoked", {"known-token=abc"}, PortalAnswer::Asks},
             {"older than tokens", "abc", {"known-token=abc", "version=3"}, PortalAnswer::Asks},
             {"a known token", "abc", {"known-token=abc"}, PortalAnswer::KnowsToken},
             {"permissions kept elsewhere", "abc", {}, PortalAnswer::KnowsToken},
         }) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(token == nullptr || token_file.write(token));
        ASSERT_TRUE(desktop_->start_portal(portal));
        EXPECT_EQ(probe(), answer);
        EXPECT_EQ(desktop_->portal_report().lines(), std::vector<std::string>{"ready"});
    }
    EXPECT_EQ(token_file.read(), "abc");
    desktop_->kill_bus();
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "no bus";
}

}  // namespace
}  // namespace ox
