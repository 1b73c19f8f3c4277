#include "check/portal_probe.h"

#include "support/wayland_test.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kLimit{20};

class PortalProbe : public test::WaylandTest {
  protected:
    [[nodiscard]] PortalAnswer probe() const {
        return probe_portal(desktop_->bus_address(), token_file_, kLimit);
    }
    void expect_nobody_was_asked() const {
        EXPECT_EQ(desktop_->portal_report().lines(), std::vector<std::string>{"ready"});
    }

    test::TempDir folder_;
    RestoreTokenFile token_file_{folder_.file("token")};
};

TEST_F(PortalProbe, APortalThatCannotShareAMonitorIsNone) {
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "no portal";
    ASSERT_TRUE(desktop_->start_portal({"version=0"}));
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "a portal without ScreenCast";
    ASSERT_TRUE(desktop_->start_portal({"sources=2"}));
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "windows only";
    expect_nobody_was_asked();
    desktop_->kill_bus();
    EXPECT_EQ(probe(), PortalAnswer::Missing) << "no bus";
}

TEST_F(PortalProbe, WithoutATokenThatItKnowsThePortalAsks) {
    ASSERT_TRUE(desktop_->start_portal({"known-token=abc"}));
    EXPECT_EQ(probe(), PortalAnswer::Asks) << "no token";
    ASSERT_TRUE(token_file_.write("revoked"));
    EXPECT_EQ(probe(), PortalAnswer::Asks) << "a token that was revoked";
    ASSERT_TRUE(token_file_.write("abc"));
    ASSERT_TRUE(desktop_->start_portal({"known-token=abc", "version=3"}));
    EXPECT_EQ(probe(), PortalAnswer::Asks) << "a portal from before the tokens";
    expect_nobody_was_asked();
}

TEST_F(PortalProbe, ATokenThatIsKnownServesAndStays) {
    ASSERT_TRUE(token_file_.write("abc"));
    ASSERT_TRUE(desktop_->start_portal({"known-token=abc"}));
    EXPECT_EQ(probe(), PortalAnswer::KnowsToken);
    ASSERT_TRUE(desktop_->start_portal({}));
    EXPECT_EQ(probe(), PortalAnswer::KnowsToken) << "a desktop that keeps permissions elsewhere";
    EXPECT_EQ(token_file_.read(), "abc");
    expect_nobody_was_asked();
}

}  // namespace
}  // namespace ox
