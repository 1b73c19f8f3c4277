#include "app/terminal.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

using tui::ColourMode;

TEST(Terminal, ColourModeFollowsTheChecksInOrder) {
    struct Case {
        TerminalEnvironment environment;
        ColourMode mode;
    };
    const Case cases[] = {
        {{"plain", "xterm", "truecolor", true}, ColourMode::Plain},
        {{nullptr, "xterm", "truecolor", false}, ColourMode::Plain},
        {{nullptr, nullptr, "truecolor", true}, ColourMode::Plain},
        {{nullptr, "", "truecolor", true}, ColourMode::Plain},
        {{nullptr, "dumb", "24bit", true}, ColourMode::Plain},
        {{nullptr, "xterm", "truecolor", true}, ColourMode::TrueColour},
        {{"PLAIN", "xterm", "24bit", true}, ColourMode::TrueColour},
        {{nullptr, "xterm", "TrueColor", true}, ColourMode::Ansi},
        {{"", "linux", nullptr, true}, ColourMode::Ansi},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(choose_colour_mode(c.environment), c.mode)
            << (c.environment.ox_tui ? c.environment.ox_tui : "-") << " "
            << (c.environment.term ? c.environment.term : "-");
    }
}

TEST(Terminal, ConsoleLogSwitchIsCaseSensitive) {
    for (const char* on : {"1", "true", "TRUE", "yes", "on", "ON"}) {
        EXPECT_TRUE(console_log_switch(on)) << on;
    }
    for (const char* off : {"", "0", "On", "True", "YES", "enabled"}) {
        EXPECT_FALSE(console_log_switch(off)) << off;
    }
    EXPECT_FALSE(console_log_switch(nullptr));
}

}  // namespace
}  // namespace ox
