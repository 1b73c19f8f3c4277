#include "launcher/options.h"

#include <array>
#include <string_view>

namespace ox::launcher {

namespace {

template <auto Field>
bool set_seconds(Options& options, std::string_view /*name*/, const char* text) {
    return read_number(text, 0.0, 1e6, options.*Field);
}

template <auto Field, int32_t Low, int32_t High>
bool set_int(Options& options, std::string_view /*name*/, const char* text) {
    return read_number(text, Low, High, options.*Field);
}

bool set_port_base(Options& options, std::string_view /*name*/, const char* text) {
    return read_number<uint16_t>(text, 1, 65530, options.port_base);
}

bool set_local_port(Options& options, std::string_view /*name*/, const char* text) {
    return read_number<uint16_t>(text, 1, 65534, options.local_port);
}

bool set_codec(Options& options, std::string_view /*name*/, const char* text) {
    return parse_codec(text, options.codec);
}

bool add_bitrate_change(Options& options, std::string_view /*name*/, const char* value) {
    const std::string_view text = value;
    const size_t at = text.find('@');
    if (at == std::string_view::npos) return false;
    BitrateChange change;
    if (!read_number<int32_t>(text.substr(0, at), 1, 1'000'000, change.kbps)) return false;
    if (!read_number(text.substr(at + 1), 0.0, 1e6, change.at_seconds)) return false;
    options.bitrate_changes.push_back(change);
    return true;
}

using Row = OptionRow<Options>;
constexpr std::array kOptions = {
    Row{"--host NAME", "the agent's host name or IPv4 address (127.0.0.1)",
        store_text<&Options::host>},
    Row{"--port-base N", "the agent's port base (47998)", set_port_base},
    Row{"--local-port N", "own UDP port for video, sound on the next one (the port base)",
        set_local_port},
    Row{"--local-ip IP", "own IPv4 address to send from (the system's choice)",
        store_text<&Options::local_ip>},
    Row{"--token TEXT", "session token; better given as ORVEX_TOKEN, which is not in ps",
        store_text<&Options::token>},
    Row{"--udp-ip IP", "own address to report to the agent for media (none)",
        store_text<&Options::udp_ip>},
    Row{"--codec NAME", "h264 or hevc (h264)", set_codec},
    Row{"--width N", "picture width to ask for (1920)", set_int<&Options::width, 1, 65535>},
    Row{"--height N", "picture height to ask for (1080)", set_int<&Options::height, 1, 65535>},
    Row{"--fps N", "pictures per second to ask for (60)", set_int<&Options::fps, 1, 1000>},
    Row{"--bitrate KBPS", "bitrate to ask for (15000)",
        set_int<&Options::bitrate_kbps, 1, 1'000'000>},
    Row{"--audio", "receive sound too, and save it with the stream", store_flag<&Options::audio>},
    Row{"--input SCRIPT", "input to send, see below, or \"demo\"; once media comes (none)",
        store_text<&Options::input_script>},
    Row{"--no-feedback", "ask for keyframes and report over the control channel alone",
        store_flag<&Options::no_feedback>},
    Row{"--seconds S", "end after S seconds of media; 0 = until Ctrl+C (0)",
        set_seconds<&Options::seconds>},
    Row{"--connect-timeout S", "for the connection and the answer to the token (10)",
        set_seconds<&Options::connect_timeout_s>},
    Row{"--media-timeout S", "longest time without media (10)",
        set_seconds<&Options::media_timeout_s>},
    Row{"--save-stream FILE", "write the stream to a Matroska file",
        store_text<&Options::save_stream>},
    Row{"--save-frame FILE", "write the last decoded picture to a PNG file",
        store_text<&Options::save_frame>},
    Row{"--json", "print the summary to standard output as one JSON object",
        store_flag<&Options::json>},
    Row{"--json-file FILE", "write the JSON summary to a file", store_text<&Options::json_file>},
    Row{"--set-bitrate KBPS@S", "ask for another bitrate after S seconds; repeatable",
        add_bitrate_change},
    Row{"--request-idr-every S", "ask for a keyframe every S seconds; 0 = never (0)",
        set_seconds<&Options::request_idr_every_s>},
    Row{"--decode-damaged", "go on decoding after a loss instead of waiting for a keyframe",
        store_flag<&Options::decode_damaged>},
    Row{"--check-stamps", "check the frame numbers drawn into the synthetic picture",
        store_flag<&Options::check_stamps>},
    Row{"--no-end", "drop the connection at the end without end_session",
        store_flag<&Options::no_end>},
    Row{"--quiet", "no progress line, no text summary", store_flag<&Options::quiet>},
    Row{"--help, --version", "print this text or the version and exit"},
};
constexpr size_t kHelpColumn = 29;
constexpr const char* kHelpFooter = R"(
An input script is a list of commands, separated by semicolons or line ends:
  move DX DY | wheel NOTCHES | wait MS | press, release or click left, right or middle |
  down, up or key KEY, where KEY is a letter, a digit, f1 to f12, enter, esc, space, tab,
  backspace, shift, ctrl, alt, meta, left, right, up, down, home, end, page_up, ...

Ports, from the port base P: control TCP P+3, input UDP P+2, video probes UDP P+4 and sound
probes UDP P+5 at the agent; video UDP P and sound UDP P+1 here.

Exit status: 0 pictures were decoded; 1 local failure (port taken, file not written);
2 bad command line; 3 connection refused; 4 token rejected; 5 timeout (no answer, no
media, media stopped); 6 media came but no picture could be decoded; 7 the agent ended
the session.
)";

}  // namespace

ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments,
                                              const char* environment_token) {
    auto parsed = read_command_line(kOptions, arguments, Options(), argument_fault_text);
    if (parsed.action != CommandLineAction::Run) return parsed;
    Options& options = parsed.options;
    if (options.token.empty() && environment_token != nullptr) options.token = environment_token;
    if (options.local_port == 0) options.local_port = options.port_base;
    if (options.token.empty()) {
        parsed.action = CommandLineAction::Fail;
        parsed.error = "no session token: set ORVEX_TOKEN or give --token";
    }
    return parsed;
}

std::string usage_text() {
    return "orvex-launcher: receives, measures and saves the stream of an orvex-agent\n"
           "Usage: orvex-launcher [options]\n\nOptions (defaults in parentheses):\n" +
           help_of(kOptions, kHelpColumn) + kHelpFooter;
}

}  // namespace ox::launcher
