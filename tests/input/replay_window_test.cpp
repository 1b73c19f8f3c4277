#include "input/replay_window.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

TEST(ReplayWindow, AcceptsEachSequenceOnceWithin64OfTheNewest) {
    struct Step {
        uint16_t seq;
        bool accepted;
    };
    const std::vector<std::vector<Step>> runs{
        // Wrap, and second copies of either side of it.
        {{65535, true}, {0, true}, {65535, false}, {0, false}, {65534, true}},
        // The far end of the window: 63 behind is in, 64 behind is out.
        {{1000, true}, {937, true}, {936, false}, {937, false}, {1000, false}},
        // A step of 63 keeps the old newest, one of 64 forgets it.
        {{10, true}, {73, true}, {10, false}, {11, true}},
        {{10, true}, {74, true}, {10, false}, {11, true}},
        // Out of order, each once.
        {{5, true}, {9, true}, {7, true}, {6, true}, {7, false}, {8, true}, {5, false}},
        // Half the number space ahead counts as behind.
        {{0, true}, {32767, true}, {65535, false}, {0, false}},
    };
    for (size_t run = 0; run < runs.size(); ++run) {
        ReplayWindow window;
        for (const Step& step : runs[run]) {
            EXPECT_EQ(window.accept_sequence(step.seq), step.accepted)
                << "run " << run << " seq " << step.seq;
        }
        window.reset();
        EXPECT_TRUE(window.accept_sequence(runs[run][0].seq));
    }
}

}  // namespace
}  // namespace ox
