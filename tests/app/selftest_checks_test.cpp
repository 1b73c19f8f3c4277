#include "app/selftest/checks.h"

#include <gtest/gtest.h>

#include <array>

namespace ox::selftest {
namespace {

struct Outcome {
    int status;
    std::string output;
};

Outcome run(std::span<const Group> groups) {
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
    const Outcome failed = run(kGroups);
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output,
              "orvex-agent self-test\n"
              "===========================\n"
              "[1] a\n"
              "  PASS  water is wet\n"
              "       sort: sweet\n"
              "[2] b\n"
              "  FAIL  the moon is cheese\n"
              "  PASS  after a failure the run goes on\n"
              "[3] c\n"
              "  PASS  water is wet\n"
              "       sort: sweet\n"
              "===========================\n"
              "3 passed, 1 failed\n"
              "SELFTEST FAIL\n");
    EXPECT_EQ(g_pass, 3);
    EXPECT_EQ(g_fail, 1);

    // The counters belong to one run.
    const Outcome passed = run(std::span(kGroups).first(1));
    EXPECT_EQ(passed.status, 0);
    EXPECT_TRUE(passed.output.ends_with("1 passed, 0 failed\nSELFTEST PASS\n")) << passed.output;
}

}  // namespace
}  // namespace ox::selftest
