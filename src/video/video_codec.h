#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace ox {

/// The values are the codecs' numbers in the launcher's messages.
enum class VideoCodec : uint32_t { H264 = 0, Hevc = 1 };

inline constexpr std::array kVideoCodecs{VideoCodec::H264, VideoCodec::Hevc};

struct CodecInfo {
    const char* option_name = nullptr;  ///< on the command line, in the log and for the backend
    const char* option_alias = nullptr;
    const char* display_name = nullptr;
};

constexpr CodecInfo codec_info(VideoCodec codec) {
    switch (codec) {
        case VideoCodec::H264:
            return {.option_name = "h264", .option_alias = "avc", .display_name = "H.264"};
        case VideoCodec::Hevc:
            return {.option_name = "hevc", .option_alias = "h265", .display_name = "HEVC"};
    }
    return {};
}
static_assert(codec_info(VideoCodec{kVideoCodecs.size()}).option_name == nullptr,
              "kVideoCodecs has every codec");

/// The codec of this option name or alias.
constexpr std::optional<VideoCodec> codec_named(std::string_view name) {
    for (const VideoCodec codec : kVideoCodecs) {
        const CodecInfo info = codec_info(codec);
        if (name == info.option_name || name == info.option_alias) return codec;
    }
    return std::nullopt;
}

/// The codec of this number in the launcher's messages.
constexpr std::optional<VideoCodec> codec_numbered(int64_t number) {
    for (const VideoCodec codec : kVideoCodecs)
        if (number == static_cast<int64_t>(codec)) return codec;
    return std::nullopt;
}

}  // namespace ox
