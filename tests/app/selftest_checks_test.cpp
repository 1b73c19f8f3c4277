#include "app/selftest/checks.h"

#include <gtest/gtest.h>

#include <array>

namespace ox::selftest {
namespace {

/// The exit status, and what was printed.
std::pair<int, std::string> run(std::span<const Group> groups) {
    testing::internal::CaptureStdout();
    const int status = run_groups([] { return 0; }, groups);
    return {status, testing::internal::GetCapturedStdout()};
}

void passing_group() {
    check(true, "water is wet");
    note("sort", "sweet");
}
void mixed_group() {
    check(false, "the moon is cheese");
    check(true, "after a failure the run goes on");
}

TEST(SelftestChecks, OneFailureAmongPassesFailsTheRunAndEndsNothing) {
    constexpr std::array<Group, 3> kGroups{
        {{"[1] a", passing_group}, {"[2] b", mixed_group}, {"[3] c", passing_group}}};
    const auto [status, output] = run(kGroups);
    EXPECT_EQ(status, 1);
    EXPECT_NE(output.find("[2] b\n"
                          "  FAIL  the moon is cheese\n"
                          "  PASS  after a failure the run goes on\n"
                          "[3] c\n"),
              std::string::npos);
    EXPECT_TRUE(output.ends_with("3 passed, 1 failed\nSELFTEST FAIL\n"));

    // The counters belong to one run.
    EXPECT_EQ(run(std::span(kGroups).first(1)).first, 0);
}

}  // namespace
}  // namespace ox::selftest
