#include "app/options.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "audio/audioparity.h"

namespace ox {
namespace {

template <auto Field>
bool set_text(Options& options, std::string_view /*name*/, const char* value) {
    options.*Field = value;
    return true;
}

template <auto Field>
bool set_number(Options& options, std::string_view /*name*/, const char* value) {
    options.*Field = static_cast<int32_t>(std::strtol(value, nullptr, 10));
    return true;
}

/// Off for the option that begins with "--no-".
template <auto Field>
bool set_switch(Options& options, std::string_view name, const char* /*value*/) {
    options.*Field = !name.starts_with("--no-");
    return true;
}

template <LogLevel Level>
bool set_log_level(Options& options, std::string_view /*name*/, const char* /*value*/) {
    options.log_level = Level;
    return true;
}

bool set_size(Options& options, std::string_view name, const char* value) {
    return name == "--width" ? set_number<&Options::width>(options, name, value)
                             : set_number<&Options::height>(options, name, value);
}

bool set_reconnect_grace(Options& options, std::string_view /*name*/, const char* value) {
    // Clamped before it is narrowed: a huge number must not become 0, which is "off".
    options.reconnect_grace_s =
        static_cast<uint32_t>(std::clamp<long>(std::strtol(value, nullptr, 10), 0, INT32_MAX));
    return true;
}

/// Sets `field` to the value that has this name.
template <typename T>
bool set_choice(T& field, std::string_view name,
                std::initializer_list<std::pair<std::string_view, T>> choices) {
    const auto* const found = std::find_if(choices.begin(), choices.end(),
                                           [&](const auto& one) { return one.first == name; });
    if (found != choices.end()) field = found->second;
    return found != choices.end();
}

bool set_encoder(Options& options, std::string_view /*name*/, const char* value) {
    using enum EncoderBackend;
    return set_choice(options.encoder, value,
                      {{"auto", Auto},
                       {"nvenc", Nvenc},
                       {"vaapi", Vaapi},
                       {"x264", Software},
                       {"sw", Software},
                       {"software", Software}});
}

bool set_codec(Options& options, std::string_view /*name*/, const char* value) {
    const auto codec = codec_named(value);
    if (codec) options.codec = *codec;
    return codec.has_value();
}

bool set_capture(Options& options, std::string_view /*name*/, const char* value) {
    const auto backend = capture_backend_named(value);
    if (backend) options.capture = *backend;
    return backend.has_value();
}

using Row = OptionRow<Options>;
constexpr std::array kOptions{
    Row{"Modes"},
    Row{"(no --saas-url)", "standalone: wait for a launcher on TCP port base + 3"},
    Row{"--saas-url <url>", "platform: stay attached to the backend at ws://... or wss://...",
        set_text<&Options::saas_url>},
    Row{"--token <text>", "agent token sent to the backend", set_text<&Options::token>},
    Row{"--token-sha256 <hex>",
        "SHA-256 of the launcher's session token, standalone mode\n(else any non-empty token)",
        set_text<&Options::token_sha256>},
    Row{"--selftest", "check wire formats and codecs offline, then exit",
        set_switch<&Options::selftest>},
    Row{"Picture"},
    Row{"--capture <mode>", "auto, x11, portal or synthetic (default auto)", set_capture},
    Row{"--display <name>", "X display to capture (default $DISPLAY)", set_text<&Options::display>},
    Row{"--encoder <name>", "auto, nvenc, vaapi or x264 (default auto)", set_encoder},
    Row{"--codec <name>", "h264 or hevc (default h264)", set_codec},
    Row{"--bitrate <kbps>", "video bitrate (default 15000)", set_number<&Options::bitrate_kbps>},
    Row{"--fps <n>", "frame rate (default 60)", set_number<&Options::fps>},
    Row{"--width <n>, --height <n>", "resolution (default 1920x1080)", set_size},
    Row{"--media-rfi, --no-media-rfi",
        "reference-frame invalidation (default off, OX_MEDIA_RFI=1 also)",
        set_switch<&Options::media_rfi>},
    Row{"Sound and input"},
    Row{"--audio", "stream the PC's sound (default off)", set_switch<&Options::audio>},
    Row{"--no-audio", {}, set_switch<&Options::audio>},
    Row{"--audio-parity, --no-audio-parity",
        "4:2 audio parity (default off, OX_AUDIO_PARITY=1 also enables)",
        set_switch<&Options::audio_parity>},
    Row{"--no-input", "do not inject the player's keyboard and mouse", set_switch<&Options::input>},
    Row{"Network"},
    Row{"--port-base <n>", "first port (default 47998): video +0, audio +1, input +2 to +5",
        set_number<&Options::port_base>},
    Row{"--reconnect-grace <s>", "hold a session for a lost launcher (default 60, 0=off)",
        set_reconnect_grace},
    Row{"Output"},
    Row{"-v", "log at level DEBUG", set_log_level<LogLevel::DEBUG>},
    Row{"--verbose",
        "raw log in the terminal instead of the status screen\n(OX_CONSOLE_LOG=1 does the same)",
        [](Options&, std::string_view, const char*) { return true; }},
    Row{"-q, --quiet", "log at level WARN", set_log_level<LogLevel::WARN>},
    Row{"-h, --help", "this text"},
};
constexpr size_t kHelpColumn = 28;

std::string fault_text(ArgumentFault fault, std::string_view name, std::string_view value) {
    switch (fault) {
        case ArgumentFault::Unknown:
            return "unknown argument '" + std::string(name) + "' (see --help)";
        case ArgumentFault::NoValue:
            return {};
        case ArgumentFault::BadValue:
            break;
    }
    const std::string_view what = name == "--capture" ? "capture mode" : name.substr(2);
    return "unknown " + std::string(what) + " '" + std::string(value) + "'";
}

}  // namespace

bool parse_media_rfi_switch(const char* value) {
    return audioparity::parse_switch_value(value);
}

Options default_options() {
    Options options;
    options.audio_parity = audioparity::audio_parity_enabled();
    options.media_rfi = parse_media_rfi_switch(std::getenv("OX_MEDIA_RFI"));
    return options;
}

ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments,
                                              const Options& defaults) {
    return read_command_line(kOptions, arguments, defaults, fault_text);
}

bool wants_verbose(std::span<const char* const> arguments) {
    return std::any_of(arguments.begin(), arguments.end(),
                       [](std::string_view argument) { return argument == "--verbose"; });
}

std::string usage_text(std::string_view program) {
    return "orvex-agent — Linux merchant agent\nUsage: " + std::string(program) + " [options]\n" +
           help_of(kOptions, kHelpColumn);
}

}  // namespace ox
