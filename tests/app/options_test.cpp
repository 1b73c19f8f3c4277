#include "app/options.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace ox {
namespace {

ParsedCommandLine<Options> parse(const std::string& line, const Options& defaults = {}) {
    std::istringstream words(line);
    const std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
    std::vector<const char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(argument.c_str());
    return parse_command_line(pointers, defaults);
}

Options options_of(const std::string& line, const Options& defaults = {}) {
    const auto parsed = parse(line, defaults);
    EXPECT_EQ(parsed.action, CommandLineAction::Run) << line;
    return parsed.options;
}

TEST(Options, EveryValueReachesItsField) {
    const Options o = options_of(
        "--saas-url ws://h --token t --token-sha256 ab --display :7 --capture x11 --port-base 5000 "
        "--encoder vaapi --codec h265 --bitrate 8000 --fps 30 --reconnect-grace 9 --width 1280 "
        "--height 720 --audio --audio-parity --media-rfi --no-input --selftest");
    EXPECT_EQ(o.saas_url + o.token + o.token_sha256 + o.display, "ws://htab:7");
    EXPECT_EQ((std::vector{o.port_base, o.bitrate_kbps, o.fps, o.width, o.height}),
              (std::vector{5000, 8000, 30, 1280, 720}));
    EXPECT_EQ(o.reconnect_grace_s, 9U);
    EXPECT_EQ(o.encoder, EncoderBackend::Vaapi);
    EXPECT_EQ(o.codec, VideoCodec::Hevc);
    EXPECT_EQ(o.capture, CaptureBackend::X11);
    EXPECT_TRUE(o.audio && o.audio_parity && o.media_rfi && o.selftest);
    EXPECT_FALSE(o.input);
}

TEST(Options, LaterArgumentsWinAndNumbersAreReadLeniently) {
    Options on;
    on.audio_parity = on.media_rfi = true;
    EXPECT_TRUE(options_of("", on).audio_parity && options_of("", on).media_rfi);
    const Options o = options_of(
        "--no-audio-parity --no-media-rfi --audio --no-audio --fps 30 --fps 144fps --port-base abc "
        "--reconnect-grace -5 --width -3 --encoder nvenc --encoder sw --codec hevc --codec avc",
        on);
    EXPECT_FALSE(o.audio_parity || o.media_rfi || o.audio);
    EXPECT_EQ((std::vector{o.fps, o.port_base, o.width}), (std::vector{144, 0, -3}));
    EXPECT_EQ(o.reconnect_grace_s, 0U);
    EXPECT_EQ(options_of("--reconnect-grace 4294967295").reconnect_grace_s, 2147483647U);
    EXPECT_EQ(o.encoder, EncoderBackend::Software);
    EXPECT_EQ(o.codec, VideoCodec::H264);
}

TEST(Options, UnusableCommandLinesNameTheirFault) {
    const std::pair<const char*, const char*> cases[] = {
        {"--encoder x265", "unknown encoder 'x265'"},
        {"--codec H264", "unknown codec 'H264'"},
        {"--capture X11", "unknown capture mode 'X11'"},
        // The first fault counts, also before a later --help.
        {"--codec vp9 --help", "unknown codec 'vp9'"},
        {"-h,", "unknown argument '-h,' (see --help)"},
        {"--fps", ""},
    };
    for (const auto& [arguments, message] : cases) {
        EXPECT_EQ(parse(arguments).action, CommandLineAction::Fail);
        EXPECT_EQ(parse(arguments).error, message);
    }
}

TEST(Options, HelpVersionAndLogLevel) {
    EXPECT_EQ(parse("-v -h --bogus").action, CommandLineAction::ShowHelp);
    EXPECT_EQ(parse("--version").action, CommandLineAction::ShowVersion);
    EXPECT_EQ(options_of("").log_level, std::nullopt);
    EXPECT_EQ(options_of("-v").log_level, LogLevel::DEBUG);
    EXPECT_EQ(options_of("-v -q").log_level, LogLevel::WARN);
    EXPECT_EQ(options_of("--quiet").log_level, LogLevel::WARN);
    EXPECT_EQ(options_of("--token --verbose").token, "--verbose");
}

}  // namespace
}  // namespace ox
