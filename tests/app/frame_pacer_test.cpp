#include "app/session/frame_pacer.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

const SteadyClock::time_point kStart{std::chrono::seconds(1000)};

TEST(FramePacer, DoesNotDriftAtRatesThatAreNoWholeNanoseconds) {
    for (const uint32_t fps : {1U, 7U, 60U, 120U}) {
        FramePacer pacer(fps, kStart);
        SteadyClock::time_point last{};
        for (uint32_t i = 0; i < fps * 100; ++i) {
            last = pacer.next_deadline();
            pacer.arrived(last);
        }
        EXPECT_EQ(last, kStart + std::chrono::seconds(100)) << fps;
    }
}

TEST(FramePacer, CatchesUpWithinFourIntervalsAndStartsAfreshBeyond) {
    FramePacer pacer(50, kStart);  // 20 ms
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(20));
    pacer.arrived(kStart + milliseconds(100));  // exactly four late: the schedule stands
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(40));
    const auto late = kStart + milliseconds(120) + nanoseconds(1);
    pacer.arrived(late);
    EXPECT_EQ(pacer.next_deadline(), late + milliseconds(20));
    pacer.reset(kStart + milliseconds(500));
    EXPECT_EQ(pacer.next_deadline(), kStart + milliseconds(520));
}

}  // namespace
}  // namespace ox
