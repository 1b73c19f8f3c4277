#include "play/options.h"

#include <array>
#include <string_view>

namespace ox::play {

namespace {

bool set_host(Options& options, std::string_view /*name*/, const char* value) {
    const std::string_view text = value;
    const size_t colon = text.find(':');
    if (!options.host.empty()) return false;
    options.host = text.substr(0, colon);
    return !options.host.empty() &&
           (colon == std::string_view::npos ||
            read_number<uint16_t>(text.substr(colon + 1), 1, 65530, options.port_base));
}

bool set_size(Options& options, std::string_view /*name*/, const char* value) {
    const std::string_view text = value;
    const size_t cross = text.find('x');
    return cross != std::string_view::npos &&
           read_number(text.substr(0, cross), 16, 4096, options.width) &&
           read_number(text.substr(cross + 1), 16, 4096, options.height);
}

bool set_fps(Options& options, std::string_view /*name*/, const char* text) {
    return read_number(text, 1, 120, options.fps);
}

bool set_codec(Options& options, std::string_view /*name*/, const char* text) {
    return launcher::parse_codec(text, options.codec);
}

bool set_bitrate(Options& options, std::string_view /*name*/, const char* text) {
    options.bitrate_kbps = 0;
    return std::string_view(text) == "auto" ||
           read_number(text, 200, 200'000, options.bitrate_kbps);
}

using Row = OptionRow<Options>;
constexpr std::array kOptions = {
    Row{"HOST[:PORT_BASE]", "name or IPv4 address of the PC, and its port base (47998)", set_host},
    Row{"--token-file FILE", "read the session token from the first line of FILE",
        store_text<&Options::token_file>},
    Row{"--token TEXT", "the session token; other users of this PC can read it in ps",
        store_text<&Options::token>},
    Row{"--size WxH", "picture size to ask for (the display's)", set_size},
    Row{"--fps N", "pictures per second to ask for (60)", set_fps},
    Row{"--codec NAME", "h264 or hevc (h264)", set_codec},
    Row{"--bitrate KBPS", "kbit/s of the picture; auto: what the network carries (auto)",
        set_bitrate},
    Row{"--fullscreen", "start in fullscreen", store_flag<&Options::fullscreen>},
    Row{"--no-audio", "without sound", store_flag<&Options::no_audio>},
    Row{"--view-only", "send no keys and no pointer", store_flag<&Options::view_only>},
    Row{"--stats", "show how the stream does", store_flag<&Options::stats>},
    Row{"--help, --version", "print this text or the version and exit"},
};
constexpr size_t kHelpColumn = 23;
constexpr const char* kHelpFooter = R"(
Without --token and --token-file the token is that of ORVEX_TOKEN; where that is not set
either, a terminal is asked for it.

A click into the window captures the pointer. Then
  Ctrl+Alt+Shift+Z  releases the pointer and the keyboard, or captures them
  Ctrl+Alt+Shift+F  switches between window and fullscreen (also F11 while released)
  Ctrl+Alt+Shift+S  shows or hides the statistics
  Ctrl+Alt+Shift+Q  ends the session
and everything else goes to the PC.

Exit status: 0 the window was closed; 1 local failure; 2 bad command line or no token;
3 nothing answers at that address; 4 token refused; 5 timeout (no answer, no picture);
6 the stream cannot be decoded here; 7 the PC ended the session or did not come back;
8 no window system; 9 unknown host; 10 what answers is no agent.
)";

}  // namespace

ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments) {
    auto parsed = read_command_line(kOptions, arguments, Options(), argument_fault_text);
    if (parsed.action == CommandLineAction::Run && parsed.options.host.empty()) {
        parsed.action = CommandLineAction::Fail;
        parsed.error = "which PC? Give its name or address: orvex-play HOST (see --help)";
    }
    return parsed;
}

std::string usage_text() {
    return "orvex-play: play on another PC, which runs orvex-agent\n"
           "Usage: orvex-play [options] HOST[:PORT_BASE]\n\nOptions (defaults in parentheses):\n" +
           help_of(kOptions, kHelpColumn) + kHelpFooter;
}

}  // namespace ox::play
