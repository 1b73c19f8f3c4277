#include "app/options.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

#include "audio/audioparity.h"

namespace ox {
namespace {

int32_t to_number(const char* text) {
    return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

/// State of one parse: what has been read so far, and the first error.
struct Parse {
    RunRequest request;
    std::string error;
};

using FlagEffect = void (*)(Parse&);
using ValueEffect = void (*)(Parse&, const char* value);

struct FlagOption {
    std::string_view name;
    FlagEffect apply;
};
struct ValueOption {
    std::string_view name;
    ValueEffect apply;
};

void set_encoder(Parse& parse, const char* value) {
    const std::string_view name = value;
    if (name == "auto") {
        parse.request.options.encoder = EncoderBackend::Auto;
    } else if (name == "nvenc") {
        parse.request.options.encoder = EncoderBackend::Nvenc;
    } else if (name == "vaapi") {
        parse.request.options.encoder = EncoderBackend::Vaapi;
    } else if (name == "x264" || name == "sw" || name == "software") {
        parse.request.options.encoder = EncoderBackend::Software;
    } else {
        parse.error = "unknown encoder '" + std::string(name) + "'";
    }
}

void set_codec(Parse& parse, const char* value) {
    const std::string_view name = value;
    if (name == "h264" || name == "avc") {
        parse.request.options.codec = VideoCodec::H264;
    } else if (name == "hevc" || name == "h265") {
        parse.request.options.codec = VideoCodec::Hevc;
    } else {
        parse.error = "unknown codec '" + std::string(name) + "'";
    }
}

void set_capture(Parse& parse, const char* value) {
    constexpr std::array<std::string_view, 4> kModes{"auto", "x11", "portal", "synthetic"};
    if (std::find(kModes.begin(), kModes.end(), value) == kModes.end()) {
        parse.error = "unknown capture mode '" + std::string(value) + "'";
        return;
    }
    parse.request.options.capture = value;
}

void set_reconnect_grace(Parse& parse, const char* value) {
    // Narrowed first, "for ever" in big numbers would become "off".
    const long seconds = std::strtol(value, nullptr, 10);
    parse.request.options.reconnect_grace_s =
        static_cast<uint32_t>(std::clamp<long>(seconds, 0, INT32_MAX));
}

constexpr std::array kFlagOptions{
    FlagOption{"--audio", [](Parse& p) { p.request.options.audio = true; }},
    FlagOption{"--no-audio", [](Parse& p) { p.request.options.audio = false; }},
    FlagOption{"--audio-parity", [](Parse& p) { p.request.options.audio_parity = true; }},
    FlagOption{"--no-audio-parity", [](Parse& p) { p.request.options.audio_parity = false; }},
    FlagOption{"--media-rfi", [](Parse& p) { p.request.options.media_rfi = true; }},
    FlagOption{"--no-media-rfi", [](Parse& p) { p.request.options.media_rfi = false; }},
    FlagOption{"--no-input", [](Parse& p) { p.request.options.input = false; }},
    FlagOption{"--selftest", [](Parse& p) { p.request.options.selftest = true; }},
    FlagOption{"-v", [](Parse& p) { p.request.log_level = LogLevel::DEBUG; }},
    FlagOption{"--verbose", [](Parse&) {}},
    FlagOption{"-q", [](Parse& p) { p.request.log_level = LogLevel::WARN; }},
    FlagOption{"--quiet", [](Parse& p) { p.request.log_level = LogLevel::WARN; }},
};

constexpr std::array kValueOptions{
    ValueOption{"--saas-url", [](Parse& p, const char* v) { p.request.options.saas_url = v; }},
    ValueOption{"--token", [](Parse& p, const char* v) { p.request.options.token = v; }},
    ValueOption{"--token-sha256",
                [](Parse& p, const char* v) { p.request.options.token_sha256 = v; }},
    ValueOption{"--display", [](Parse& p, const char* v) { p.request.options.display = v; }},
    ValueOption{"--port-base",
                [](Parse& p, const char* v) { p.request.options.port_base = to_number(v); }},
    ValueOption{"--encoder", set_encoder},
    ValueOption{"--codec", set_codec},
    ValueOption{"--bitrate",
                [](Parse& p, const char* v) { p.request.options.bitrate_kbps = to_number(v); }},
    ValueOption{"--reconnect-grace", set_reconnect_grace},
    ValueOption{"--fps", [](Parse& p, const char* v) { p.request.options.fps = to_number(v); }},
    ValueOption{"--width", [](Parse& p, const char* v) { p.request.options.width = to_number(v); }},
    ValueOption{"--height",
                [](Parse& p, const char* v) { p.request.options.height = to_number(v); }},
    ValueOption{"--capture", set_capture},
};

template <typename Table>
const typename Table::value_type* find_option(const Table& table, std::string_view name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const auto& option) { return option.name == name; });
    return found == table.end() ? nullptr : &*found;
}

}  // namespace

bool parse_media_rfi_switch(const char* value) {
    return audioparity::parse_switch_value(value);
}

OptionDefaults option_defaults_from_environment() {
    return {.audio_parity = audioparity::audio_parity_enabled(),
            .media_rfi = parse_media_rfi_switch(std::getenv("OX_MEDIA_RFI"))};
}

CommandLine parse_command_line(int argc, const char* const* argv, const OptionDefaults& defaults) {
    Parse parse;
    parse.request.options.audio_parity = defaults.audio_parity;
    parse.request.options.media_rfi = defaults.media_rfi;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help") return ShowHelp{};
        if (argument == "--version") return ShowVersion{};
        if (const auto* flag = find_option(kFlagOptions, argument)) {
            flag->apply(parse);
        } else if (const auto* option = find_option(kValueOptions, argument)) {
            if (i + 1 >= argc || argv[i + 1] == nullptr) return UsageError{};
            option->apply(parse, argv[++i]);
        } else {
            parse.error = "unknown argument '" + std::string(argument) + "' (see --help)";
        }
        if (!parse.error.empty()) return UsageError{parse.error};
    }
    return parse.request;
}

bool wants_verbose(int argc, const char* const* argv) {
    return std::any_of(argv + std::min(argc, 1), argv + argc, [](const char* argument) {
        return std::string_view(argument) == "--verbose";
    });
}

}  // namespace ox
