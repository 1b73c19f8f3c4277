#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "input/input_packet.h"

namespace ox::launcher {

/// One packet and its time from the start of the script.
struct InputStep {
    std::chrono::milliseconds at{0};
    InputPacket packet;
};

/// Reads a script of input events: commands, separated by semicolons or line ends, of
///   move DX DY                 moves the pointer by pixels
///   press|release|click BUTTON left, right or middle
///   wheel NOTCHES              positive is away from the user
///   down|up|key KEY            "a", "7", "f5", "enter", "right_ctrl", ...; "key" does both
///   wait MS                    delays everything after it
/// "demo" is a built-in script. False, with a text for the user in `error`, when a command cannot
/// be parsed. Keys and buttons that are down at the end are released.
bool parse_input_script(std::string_view text, std::vector<InputStep>& steps, std::string& error);

}  // namespace ox::launcher
