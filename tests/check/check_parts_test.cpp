// Steps in processes of their own, and what the portal tells without asking anybody.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "check/bounded_step.h"
#include "check/portal_probe.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "support/wayland_desktop.h"

namespace ox {
namespace {

using End = BoundedStep::End;

constexpr std::chrono::seconds kPatience{20};

TEST(BoundedStep, GivesTheAnswersOfStepsThatRunAtTheSameTime) {
    // The first ends only after the second, so that they deadlock when one waits for the other.
    const test::TempDir folder;
    const std::string file = folder.file("second");
    BoundedStep first(
        [&] {
            const bool there = test::eventually([&] { return ::access(file.c_str(), F_OK) == 0; });
            return std::string(there ? "met" : "alone");
        },
        kPatience);
    BoundedStep second(
        [&] {
            folder.write("second", "");
            return std::string("two words");
        },
        kPatience);
    const auto met = first.wait();
    EXPECT_EQ(met.end, End::Answered);
    EXPECT_EQ(met.text, "met");
    EXPECT_EQ(second.wait().text, "two words");
}

TEST(BoundedStep, OutlivesACrash) {
    BoundedStep step(
        []() -> std::string {
            ::signal(SIGSEGV, SIG_DFL);
            ::raise(SIGSEGV);
            return "still there";
        },
        kPatience);
    const auto result = step.wait();
    EXPECT_EQ(result.end, End::Crashed);
    EXPECT_EQ(result.text, "");
}

TEST(BoundedStep, EndsAStepThatHangsAndWhatItHasStarted) {
    const test::TempDir folder;
    const std::string file = folder.file("pid");
    BoundedStep step(
        [&]() -> std::string {
            // A child that ignores what ends it politely.
            const std::string child = "trap '' TERM; echo $$ >" + file + "; sleep 600";
            return std::to_string(std::system(child.c_str()));  // NOLINT
        },
        std::chrono::seconds(1));
    EXPECT_EQ(step.wait().end, End::TimedOut);
    const pid_t child = std::atoi(test::read_file(file).c_str());
    ASSERT_GT(child, 0) << "the step did not get so far";
    // A zombie of init's is no process any more either, but still has its number.
    const std::string status = "/proc/" + std::to_string(child) + "/cmdline";
    EXPECT_TRUE(test::eventually([&] { return test::read_file(status).empty(); }));
}

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
