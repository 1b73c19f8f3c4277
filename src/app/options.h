#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/command_line.h"
#include "log/log.h"
#include "video/capture_factory.h"
#include "video/video_encoder.h"

namespace ox {

struct Options {
    std::string saas_url;      ///< empty: standalone mode
    std::string token;         ///< agent token for the backend
    std::string token_sha256;  ///< hex SHA-256 of the launcher's token, standalone mode
    std::string display;       ///< X display; empty: `$DISPLAY`
    CaptureBackend capture = CaptureBackend::Auto;
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
    std::optional<LogLevel> log_level{};  ///< as the command line asks for it
};

/// True for "1", "on", "true", "yes" and "enabled" in any case.
bool parse_media_rfi_switch(const char* value);

/// The defaults, two of which come from OX_AUDIO_PARITY and OX_MEDIA_RFI.
Options default_options();

/// Numbers are read as by `strtol`, unchecked. A missing value is an error without a text.
ParsedCommandLine<Options> parse_command_line(std::span<const char* const> arguments,
                                              const Options& defaults);

/// Whether some argument is "--verbose", even one that is another option's value.
bool wants_verbose(std::span<const char* const> arguments);

std::string usage_text(std::string_view program);

}  // namespace ox
