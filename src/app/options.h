#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "log/log.h"
#include "video/video_encoder.h"

namespace ox {

/// The parsed command line.
struct Options {
    std::string saas_url;      ///< empty: standalone mode
    std::string token;         ///< agent token for the backend
    std::string token_sha256;  ///< hex SHA-256 of the launcher's token, standalone mode
    std::string display;       ///< X display; empty: `$DISPLAY`
    std::string capture = "auto";
    int32_t port_base = 47998;
    EncoderBackend encoder = EncoderBackend::Auto;
    VideoCodec codec = VideoCodec::H264;
    int32_t bitrate_kbps = 15000;
    int32_t fps = 60;
    uint32_t reconnect_grace_s = 60;  ///< 0: off; fits an int32_t
    int32_t width = 1920;
    int32_t height = 1080;
    bool audio = false;
    bool audio_parity = false;
    bool media_rfi = false;
    bool input = true;
    bool selftest = false;
};

/// Defaults that come from the environment.
struct OptionDefaults {
    bool audio_parity = false;
    bool media_rfi = false;
};

/// True for "1", "on", "true", "yes" and "enabled" in any mix of ASCII case; the words of
/// OX_AUDIO_PARITY.
bool parse_media_rfi_switch(const char* value);

/// Reads OX_AUDIO_PARITY and OX_MEDIA_RFI.
OptionDefaults option_defaults_from_environment();

/// What the command line asks for. `log_level` is set when an option changed it.
struct RunRequest {
    Options options;
    std::optional<LogLevel> log_level;
};
/// `--help`: print the usage text and end with status 0.
struct ShowHelp {};
/// `--version`: print the version and end with status 0.
struct ShowVersion {};
/// The command line is unusable: log `message` when there is one, print the usage text and end
/// with status 2.
struct UsageError {
    std::string message;
};
using CommandLine = std::variant<RunRequest, ShowHelp, ShowVersion, UsageError>;

/// Reads the arguments behind the program's name, left to right. Numbers are read as `strtol` does,
/// without a range check. Has no effects of its own.
CommandLine parse_command_line(int argc, const char* const* argv, const OptionDefaults& defaults);

/// True when some argument is "--verbose", wherever it stands.
bool wants_verbose(int argc, const char* const* argv);

/// The usage text, a printf format with one %s for the program's path.
extern const char* const kUsageFormat;

}  // namespace ox
