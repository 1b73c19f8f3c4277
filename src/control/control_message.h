#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

// What an authenticated launcher sends: lines of JSON.

namespace ox {

struct RequestIdr {};
struct EndSession {};
/// Stream settings the launcher asks for; 0 = leave as it is.
struct SettingsChange {
    int32_t bitrate = 0;  ///< kbit/s
    int32_t fps = 0;
    int32_t width = 0;
    int32_t height = 0;
};
/// Statistics as the launcher measures them; 0 where it sent none.
struct ClientStats {
    float rtt_ms = 0;
    float packet_loss_pct = 0;
    float decoded_fps = 0;
    float jitter_ms = 0;
};
/// A well-formed message of a type that this agent does not know.
struct UnknownControlMessage {
    std::string type;
};
using ControlMessage =
    std::variant<RequestIdr, EndSession, SettingsChange, ClientStats, UnknownControlMessage>;

/// A keep-alive, answered with the same `ts`.
struct Ping {
    int64_t ts = 0;
};
/// No JSON object, or a field of the wrong type.
struct MalformedLine {
    std::string error;  ///< fit for the log
};
/// One control line. `std::monostate`: an object without a type, ignored.
using ControlLine = std::variant<std::monostate, MalformedLine, Ping, ControlMessage>;

/// Parses one line (without its line feed). Never throws; numbers out of range are clamped.
ControlLine parse_control_line(std::string_view line);

std::string make_pong(int64_t ts);

/// A byte stream in lines; of one longer than `max_length` only the length is kept.
class LineSplitter {
  public:
    struct Line {
        std::string_view text;  ///< without line feed; empty when the line was too long
        size_t length = 0;      ///< bytes that were sent, also of a line too long
    };

    explicit LineSplitter(size_t max_length);

    /// Calls `on_line` in order; the text is valid during the call only.
    void feed(std::string_view bytes, const std::function<void(const Line&)>& on_line);

  private:
    void append(std::string_view part);

    size_t max_length_;
    std::string partial_;  ///< start of the unfinished line; empty once it is too long
    size_t length_ = 0;    ///< length of the unfinished line so far
};

}  // namespace ox
