#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/command_line.h"
#include "launcher/client/control_messages.h"

namespace ox::play {

/// How the program ended: its exit status.
enum class ExitStatus : uint8_t {
    Ok = 0,           ///< the player closed the window
    Failed = 1,       ///< a local failure
    Usage = 2,        ///< the command line, or no token
    Unreachable = 3,  ///< nothing accepts connections at the address
    Rejected = 4,     ///< the PC refused the token
    TimedOut = 5,     ///< no answer, or no media
    Undecodable = 6,  ///< media arrived that cannot be decoded here
    HostEnded = 7,    ///< the PC ended the session, or did not come back
    NoDisplay = 8,    ///< there is no window system
    UnknownHost = 9,  ///< the name cannot be resolved
    BadAnswer = 10,   ///< what answers is no agent
};

struct Options {
    std::string host;
    uint16_t port_base = 47998;
    std::string token;       ///< as given on the command line; empty: see `find_token`
    std::string token_file;  ///< empty: none
    launcher::Codec codec = launcher::Codec::H264;
    int32_t width = 0;  ///< 0 = the display's
    int32_t height = 0;
    int32_t fps = 60;
    int32_t bitrate_kbps = 0;  ///< 0 = chosen by how the network does
    bool fullscreen = false;
    bool no_audio = false;
    bool view_only = false;  ///< sends no input
    bool stats = false;      ///< shows the overlay from the start
};

/// Reads the arguments behind the program's name. Pure.
ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments);

/// The usage text, with all options, their defaults, the keys and the exit statuses.
std::string usage_text();

}  // namespace ox::play
