#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace ox {

/// Statistics as the launcher measures them; 0 where it sent none.
struct ClientStats {
    float rtt_ms = 0;
    float packet_loss_pct = 0;
    float decoded_fps = 0;
    float jitter_ms = 0;
};

/// Stream settings the launcher asks for; 0 = leave as it is.
struct SettingsChange {
    int32_t bitrate = 0;  ///< kbit/s
    int32_t fps = 0;
    int32_t width = 0;
    int32_t height = 0;
};

/// A keep-alive question, answered with the same `ts`.
struct PingMessage {
    int64_t ts = 0;
};
/// Any message without a payload that matters here.
struct NamedMessage {
    std::string type;
};
/// A line that is to be dropped: no JSON object, or a field of the wrong type.
struct MalformedMessage {
    std::string why;
};

/// One control line, read. `std::monostate`: an object without a type, ignored.
using ControlMessage = std::variant<std::monostate, PingMessage, NamedMessage, SettingsChange,
                                    ClientStats, MalformedMessage>;

/// Reads one line (without its line feed). Never throws; numbers out of range are converted.
ControlMessage parse_control_line(std::string_view line);

/// The reply to a ping.
std::string make_pong(int64_t ts);

}  // namespace ox
