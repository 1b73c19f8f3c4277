#include "app/selftest/checks.h"

#include <gtest/gtest.h>

#include <array>

namespace ox::selftest {
namespace {

void passing_group() {
    check(true, "water is wet");
}
void mixed_group() {
    check(false, "the moon is cheese");
    check(true, "after a failure the run goes on");
}

TEST(SelftestChecks, OneFailureAmongPassesFailsTheRunAndEndsNothing) {
    constexpr std::array<Group, 3> kGroups{
        {{"[1] a", passing_group}, {"[2] b", mixed_group}, {"[3] c", passing_group}}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_groups([] { return 0; }, kGroups), 1);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("[2] b\n"
                          "  FAIL  the moon is cheese\n"
                          "  PASS  after a failure the run goes on\n"
                          "[3] c\n"),
              std::string::npos);
    EXPECT_TRUE(output.ends_with("3 passed, 1 failed\nSELFTEST FAIL\n"));
}

}  // namespace
}  // namespace ox::selftest
