#include "launcher/options.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace ox::launcher {

namespace {

using Apply = bool (*)(Options&, std::string_view);

// One option: `value` names its argument in the usage text, or is empty when it takes none.
struct OptionSpec {
    std::string_view name;
    std::string_view value;
    std::string_view help;
    Apply apply;
};

template <typename Number>
bool read_number(std::string_view text, Number low, Number high, Number& out) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return false;
    if (!(value >= low && value <= high)) return false;  // refuses NaN as well
    out = value;
    return true;
}

template <auto Field>
bool set_text(Options& options, std::string_view text) {
    options.*Field = text;
    return !text.empty();
}

template <auto Field>
bool set_flag(Options& options, std::string_view) {
    options.*Field = true;
    return true;
}

template <auto Field>
bool set_seconds(Options& options, std::string_view text) {
    return read_number(text, 0.0, 1e6, options.*Field);
}

template <auto Field, int32_t Low, int32_t High>
bool set_int(Options& options, std::string_view text) {
    return read_number(text, Low, High, options.*Field);
}

bool set_port_base(Options& options, std::string_view text) {
    return read_number<uint16_t>(text, 1, 65530, options.port_base);
}

bool set_local_port(Options& options, std::string_view text) {
    return read_number<uint16_t>(text, 1, 65534, options.local_port);
}

bool set_codec(Options& options, std::string_view text) {
    if (text == "h264")
        options.codec = Codec::H264;
    else if (text == "hevc")
        options.codec = Codec::Hevc;
    else
        return false;
    return true;
}

bool add_bitrate_change(Options& options, std::string_view text) {
    const size_t at = text.find('@');
    if (at == std::string_view::npos) return false;
    BitrateChange change;
    if (!read_number<int32_t>(text.substr(0, at), 1, 1'000'000, change.kbps)) return false;
    if (!read_number(text.substr(at + 1), 0.0, 1e6, change.at_seconds)) return false;
    options.bitrate_changes.push_back(change);
    return true;
}

constexpr std::array kOptions = {
    OptionSpec{"--host", "NAME", "the agent's host name or IPv4 address (127.0.0.1)",
               set_text<&Options::host>},
    OptionSpec{"--port-base", "N", "the agent's port base (47998)", set_port_base},
    OptionSpec{"--local-port", "N", "own UDP port for video, sound on the next one (the port base)",
               set_local_port},
    OptionSpec{"--local-ip", "IP", "own IPv4 address to send from (the system's choice)",
               set_text<&Options::local_ip>},
    OptionSpec{"--token", "TEXT", "session token; better given as ORVEX_TOKEN, which is not in ps",
               set_text<&Options::token>},
    OptionSpec{"--udp-ip", "IP", "own address to report to the agent for media (none)",
               set_text<&Options::udp_ip>},
    OptionSpec{"--codec", "NAME", "h264 or hevc (h264)", set_codec},
    OptionSpec{"--width", "N", "picture width to ask for (1920)",
               set_int<&Options::width, 1, 65535>},
    OptionSpec{"--height", "N", "picture height to ask for (1080)",
               set_int<&Options::height, 1, 65535>},
    OptionSpec{"--fps", "N", "pictures per second to ask for (60)",
               set_int<&Options::fps, 1, 1000>},
    OptionSpec{"--bitrate", "KBPS", "bitrate to ask for (15000)",
               set_int<&Options::bitrate_kbps, 1, 1'000'000>},
    OptionSpec{"--audio", "", "receive sound too, and save it with the stream",
               set_flag<&Options::audio>},
    OptionSpec{"--input", "SCRIPT",
               "input to send, see below, or \"demo\"; once media comes (none)",
               set_text<&Options::input_script>},
    OptionSpec{"--no-feedback", "", "ask for keyframes and report over the control channel alone",
               set_flag<&Options::no_feedback>},
    OptionSpec{"--seconds", "S", "end after S seconds of media; 0 = until Ctrl+C (0)",
               set_seconds<&Options::seconds>},
    OptionSpec{"--connect-timeout", "S", "for the connection and the answer to the token (10)",
               set_seconds<&Options::connect_timeout_s>},
    OptionSpec{"--media-timeout", "S", "longest time without media (10)",
               set_seconds<&Options::media_timeout_s>},
    OptionSpec{"--save-stream", "FILE", "write the stream to a Matroska file",
               set_text<&Options::save_stream>},
    OptionSpec{"--save-frame", "FILE", "write the last decoded picture to a PNG file",
               set_text<&Options::save_frame>},
    OptionSpec{"--json", "", "print the summary to standard output as one JSON object",
               set_flag<&Options::json>},
    OptionSpec{"--json-file", "FILE", "write the JSON summary to a file",
               set_text<&Options::json_file>},
    OptionSpec{"--set-bitrate", "KBPS@S", "ask for another bitrate after S seconds; repeatable",
               add_bitrate_change},
    OptionSpec{"--request-idr-every", "S", "ask for a keyframe every S seconds; 0 = never (0)",
               set_seconds<&Options::request_idr_every_s>},
    OptionSpec{"--decode-damaged", "",
               "go on decoding after a loss instead of waiting for a keyframe",
               set_flag<&Options::decode_damaged>},
    OptionSpec{"--check-stamps", "", "check the frame numbers drawn into the synthetic picture",
               set_flag<&Options::check_stamps>},
    OptionSpec{"--no-end", "", "drop the connection at the end without end_session",
               set_flag<&Options::no_end>},
    OptionSpec{"--quiet", "", "no progress line, no text summary", set_flag<&Options::quiet>},
};

ParsedCommandLine fail(std::string error) {
    return {.action = ParsedCommandLine::Action::Fail, .options = {}, .error = std::move(error)};
}

const OptionSpec* find_option(std::string_view name) {
    for (const OptionSpec& option : kOptions)
        if (option.name == name) return &option;
    return nullptr;
}

}  // namespace

ParsedCommandLine parse_command_line(std::span<const char* const> arguments,
                                     const char* environment_token) {
    ParsedCommandLine parsed;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string name = arguments[i];
        if (name == "--help" || name == "-h") {
            parsed.action = ParsedCommandLine::Action::ShowHelp;
            return parsed;
        }
        if (name == "--version") {
            parsed.action = ParsedCommandLine::Action::ShowVersion;
            return parsed;
        }
        const OptionSpec* option = find_option(name);
        if (option == nullptr) return fail("unknown argument '" + name + "' (see --help)");
        std::string_view value;
        if (!option->value.empty()) {
            if (++i == arguments.size()) return fail(name + " needs a value");
            value = arguments[i];
        }
        if (!option->apply(parsed.options, value))
            return fail("bad value '" + std::string(value) + "' for " + name);
    }
    if (parsed.options.token.empty() && environment_token != nullptr)
        parsed.options.token = environment_token;
    if (parsed.options.token.empty())
        return fail("no session token: set ORVEX_TOKEN or give --token");
    if (parsed.options.local_port == 0) parsed.options.local_port = parsed.options.port_base;
    return parsed;
}

std::string usage_text() {
    std::string text =
        "orvex-launcher: receives, measures and saves the stream of an orvex-agent\n"
        "Usage: orvex-launcher [options]\n\nOptions (defaults in parentheses):\n";
    std::array<char, 160> line{};
    for (const OptionSpec& option : kOptions) {
        const std::string left = std::string(option.name) + " " + std::string(option.value);
        std::snprintf(line.data(), line.size(), "  %-26s %.*s\n", left.c_str(),
                      static_cast<int>(option.help.size()), option.help.data());
        text += line.data();
    }
    text +=
        "  --help, --version          print this text or the version and exit\n"
        "\n"
        "An input script is a list of commands, separated by semicolons or line ends:\n"
        "  move DX DY | wheel NOTCHES | wait MS | press, release or click left, right or middle |\n"
        "  down, up or key KEY, where KEY is a letter, a digit, f1 to f12, enter, esc, space, "
        "tab,\n"
        "  backspace, shift, ctrl, alt, meta, left, right, up, down, home, end, page_up, ...\n"
        "\n"
        "Ports, from the port base P: control TCP P+3, input UDP P+2, video probes UDP P+4 and "
        "sound\n"
        "probes UDP P+5 at the agent; video UDP P and sound UDP P+1 here.\n"
        "\n"
        "Exit status: 0 pictures were decoded; 1 local failure (port taken, file not written);\n"
        "2 bad command line; 3 connection refused; 4 token rejected; 5 timeout (no answer, no\n"
        "media, media stopped); 6 media came but no picture could be decoded; 7 the agent ended\n"
        "the session.\n";
    return text;
}

}  // namespace ox::launcher
