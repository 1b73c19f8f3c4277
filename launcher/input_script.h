#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "input/input_packet.h"

namespace ox::launcher {

/// One packet and when to send it, counted from the start of the script.
struct InputStep {
    std::chrono::milliseconds at{0};
    InputPacket packet;
};

/// Reads a script of input events: commands, separated by semicolons or line ends, of
///   move DX DY                 moves the pointer by so many pixels
///   press|release|click BUTTON left, right or middle
///   wheel NOTCHES              positive is away from the user
///   down|up|key KEY            a key's name, see `find_key`; "key" presses and releases
///   wait MS                    everything after it is so much later
/// "demo" alone stands for a built-in script that has some of each. False, with a text for the user
/// in `error`, when it cannot be read. What is held at the end is released.
bool parse_input_script(std::string_view text, std::vector<InputStep>& steps, std::string& error);

}  // namespace ox::launcher
