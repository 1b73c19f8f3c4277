// Input scripts, and the sealing of what they send.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "launcher/input_script.h"
#include "launcher/input_sealer.h"

namespace ox::launcher {
namespace {

// Each step as "time kind data0 data1 buttons".
std::string steps_of(const std::string& script) {
    std::vector<InputStep> steps;
    std::string error;
    if (!parse_input_script(script, steps, error)) return error;
    std::ostringstream text;
    for (const InputStep& step : steps)
        text << step.at.count() << " " << +step.packet.kind << " " << +step.packet.data0 << " "
             << +step.packet.data1 << " " << +step.packet.buttons << "|";
    return text.str();
}

TEST(InputScript, BecomesTimedPackets) {
    const std::pair<const char*, const char*> cases[] = {
        {"move 5 -7;wait 30\nmove -1 0", "0 0 5 -7 0|30 0 -1 0 0|"},
        {"wheel 2; wheel -1", "0 2 0 240 0|0 2 0 -120 0|"},
        {"press left; move 1 1; click right; release left",
         "0 1 0 0 1|0 0 1 1 1|0 1 0 0 3|20 1 0 0 1|20 1 0 0 0|"},
        {"key right", "0 3 39 589 0|20 4 39 589 0|"},  // 77 + 256 * 2
        // What is held at the end is released, the last first.
        {"down shift; down f10; press middle; up shift",
         "0 3 160 42 0|0 3 121 68 0|0 1 0 0 4|0 4 160 42 4|0 1 0 0 0|0 4 121 68 0|"},
        {"move 1 2 3", "input script: cannot read 'move 1 2 3'"},
        {"move 40000 0", "input script: cannot read 'move 40000 0'"},
        {"wait 1; click thumb", "input script: cannot read ' click thumb'"},
    };
    for (const auto& [script, expected] : cases)
        EXPECT_EQ(steps_of(script), expected) << script;
}

// Within a session the nonce counts, as the wire vectors show.
TEST(InputSealer, NeverUsesANonceTwice) {
    constexpr std::array<uint8_t, 32> kKey{9};
    // As with a platform's master key: two sessions, one key.
    const auto one = InputSealer(kKey).seal({}).value();
    const auto other = InputSealer(kKey).seal({}).value();
    EXPECT_FALSE(std::equal(one.begin(), one.begin() + 8, other.begin()));
    InputSealer last(kKey, {}, UINT32_MAX);
    EXPECT_TRUE(last.seal({}));
    EXPECT_FALSE(last.seal({})) << "the count is used up";
}

}  // namespace
}  // namespace ox::launcher
