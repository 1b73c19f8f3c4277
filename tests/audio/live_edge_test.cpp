#include "audio/live_edge.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr microseconds kBuffer{5000};

TEST(LiveEdge, AStallOfFiftyMillisecondsIsPlayedAndMoreIsDroppedUpToTheNewest) {
    for (const auto stall : {milliseconds(54), milliseconds(200), milliseconds(5000)}) {
        LiveEdge edge;
        SteadyClock::time_point now{};
        ASSERT_TRUE(edge.keep(kBuffer, milliseconds(5), now));
        now += stall;
        // What piled up comes without a wait, as fast as it is read.
        const auto queued = stall / kBuffer;
        int64_t kept = 0;
        for (int64_t i = 0; i < queued; ++i) {
            now += microseconds(20);
            if (edge.keep(kBuffer, microseconds(20), now)) ++kept;
        }
        EXPECT_EQ(kept, stall < milliseconds(55) ? queued : 0) << stall.count();
        EXPECT_TRUE(edge.keep(kBuffer, milliseconds(4), now + milliseconds(5)));
    }
}

}  // namespace
}  // namespace ox
