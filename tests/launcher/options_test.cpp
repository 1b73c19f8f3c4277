#include "launcher/options.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ox::launcher {
namespace {

using Action = ParsedCommandLine::Action;

ParsedCommandLine parse(const std::string& line, const char* environment_token = nullptr) {
    std::istringstream words(line);
    const std::vector<std::string> texts{std::istream_iterator<std::string>(words), {}};
    std::vector<const char*> arguments;
    for (const auto& text : texts)
        arguments.push_back(text.c_str());
    return parse_command_line(arguments, environment_token);
}

TEST(LauncherOptions, EveryOptionReachesItsField) {
    const auto parsed = parse(
        "--host pc --port-base 40000 --local-port 41000 --token t --udp-ip 10.0.0.1 --codec hevc "
        "--width 640 --height 360 --fps 30 --bitrate 900 --seconds 2.5 --connect-timeout 3 "
        "--media-timeout 4 --save-stream a.mkv --save-frame a.png --json --json-file a.json "
        "--set-bitrate 700@5 --set-bitrate 800@1.5 --request-idr-every 0.5 --decode-damaged "
        "--check-stamps --no-end --quiet --audio --no-feedback --input demo");
    ASSERT_EQ(parsed.action, Action::Run) << parsed.error;
    const Options& o = parsed.options;
    EXPECT_EQ(o.host, "pc");
    EXPECT_EQ(o.port_base, 40000);
    EXPECT_EQ(o.local_port, 41000);
    EXPECT_EQ(o.token, "t");
    EXPECT_EQ(o.udp_ip, "10.0.0.1");
    EXPECT_EQ(o.codec, Codec::Hevc);
    EXPECT_EQ((std::vector{o.width, o.height, o.fps, o.bitrate_kbps}),
              (std::vector{640, 360, 30, 900}));
    EXPECT_EQ(
        (std::vector{o.seconds, o.connect_timeout_s, o.media_timeout_s, o.request_idr_every_s}),
        (std::vector{2.5, 3.0, 4.0, 0.5}));
    EXPECT_EQ(o.save_stream + o.save_frame + o.json_file, "a.mkva.pnga.json");
    ASSERT_EQ(o.bitrate_changes.size(), 2U);
    EXPECT_EQ(o.bitrate_changes[1].kbps, 800);
    EXPECT_EQ(o.bitrate_changes[1].at_seconds, 1.5);
    EXPECT_EQ(o.input_script, "demo");
    EXPECT_TRUE(o.audio && o.no_feedback && o.json && o.decode_damaged && o.check_stamps &&
                o.no_end && o.quiet);
}

TEST(LauncherOptions, TokenFromTheEnvironmentAndPortFromTheBase) {
    const auto parsed = parse("--port-base 5000", "secret");
    EXPECT_EQ(parsed.options.token, "secret");
    EXPECT_EQ(parsed.options.local_port, 5000);
    EXPECT_EQ(parse("--token argument", "environment").options.token, "argument");
    EXPECT_EQ(parse("--json --help").action, Action::ShowHelp);
}

TEST(LauncherOptions, RefusesBadValuesWithTheirName) {
    for (const char* line :
         {"--port-base 65531", "--port-base 0", "--port-base x", "--codec av1", "--width 0",
          "--width 12x", "--fps -1", "--seconds nan", "--seconds -1", "--bitrate 99999999999",
          "--seconds", "--unknown 1", "--set-bitrate 700", "--set-bitrate @5", "--set-bitrate 700@",
          "--local-port 65535"}) {
        const auto parsed = parse(std::string("--token t ") + line);
        EXPECT_EQ(parsed.action, Action::Fail) << line;
        const std::string name = std::string(line).substr(0, std::string(line).find(' '));
        EXPECT_NE(parsed.error.find(name), std::string::npos) << parsed.error;
    }
    EXPECT_NE(parse("", "").error.find("ORVEX_TOKEN"), std::string::npos);
}

}  // namespace
}  // namespace ox::launcher
