#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/command_line.h"
#include "launcher/client/control_messages.h"

namespace ox::launcher {

/// A bitrate to ask for when media has been coming for `at_seconds`.
struct BitrateChange {
    int32_t kbps = 0;
    double at_seconds = 0;
};

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port_base = 47998;
    uint16_t local_port = 0;  ///< own UDP port for video, sound on the next; 0 = the port base
    std::string local_ip;     ///< own address to send from; empty = the system's choice
    std::string token;
    std::string udp_ip;  ///< reported to the agent when not empty
    Codec codec = Codec::H264;
    int32_t width = 1920;
    int32_t height = 1080;
    int32_t fps = 60;
    int32_t bitrate_kbps = 15000;
    double seconds = 0;  ///< of media; 0 = until stopped
    double connect_timeout_s = 10;
    double media_timeout_s = 10;
    double request_idr_every_s = 0;  ///< 0 = only after losses
    std::vector<BitrateChange> bitrate_changes;
    std::string input_script;  ///< as `parse_input_script` reads it; empty = no input
    std::string save_stream;
    std::string save_frame;
    std::string json_file;
    bool audio = false;
    bool json = false;
    bool check_stamps = false;
    bool no_feedback = false;  ///< keyframe requests and reports over the control channel alone
    bool decode_damaged = false;
    bool no_end = false;
    bool quiet = false;
};

/// `environment_token` (may be null) serves when no token is given. Pure.
ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments,
                                              const char* environment_token);

std::string usage_text();

}  // namespace ox::launcher
