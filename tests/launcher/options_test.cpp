#include "launcher/options.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ox::launcher {
namespace {

ParsedCommandLine parse(const std::string& line, const char* environment_token = nullptr) {
    std::istringstream words(line);
    const std::vector<std::string> texts{std::istream_iterator<std::string>(words), {}};
    std::vector<const char*> arguments;
    for (const auto& text : texts)
        arguments.push_back(text.c_str());
    return parse_command_line(arguments, environment_token);
}

TEST(LauncherOptions, ReachTheirFields) {
    const auto parsed = parse(
        "--host pc --port-base 40000 --codec hevc --width 640 --height 360 --seconds 2.5 "
        "--set-bitrate 700@5 --set-bitrate 800@1.5 --json --audio --input demo",
        "secret");
    ASSERT_EQ(parsed.action, ParsedCommandLine::Action::Run) << parsed.error;
    const Options& o = parsed.options;
    EXPECT_EQ(o.host + o.token, "pcsecret");
    EXPECT_EQ(o.input_script, "demo");
    EXPECT_EQ(o.local_port, 40000) << "the port base, unless given";
    EXPECT_EQ((std::vector{o.width, o.height}), (std::vector{640, 360}));
    EXPECT_EQ(o.seconds, 2.5);
    EXPECT_TRUE(o.codec == Codec::Hevc && o.json && o.audio && !o.no_end);
    ASSERT_EQ(o.bitrate_changes.size(), 2U);
    EXPECT_EQ(o.bitrate_changes[1].kbps, 800);
    EXPECT_EQ(o.bitrate_changes[1].at_seconds, 1.5);
    EXPECT_EQ(parse("--token argument", "environment").options.token, "argument");
}

TEST(LauncherOptions, RefusesBadValuesWithTheirName) {
    for (const char* line :
         {"--port-base 65531", "--port-base 0", "--codec av1", "--width 0", "--width 12x",
          "--fps -1", "--seconds nan", "--bitrate 99999999999", "--seconds", "--unknown 1",
          "--local-port 65535", "--set-bitrate 700", "--set-bitrate @5", "--set-bitrate 700@"}) {
        const auto parsed = parse(std::string("--token t ") + line);
        EXPECT_EQ(parsed.action, ParsedCommandLine::Action::Fail) << line;
        const std::string name = std::string(line).substr(0, std::string(line).find(' '));
        EXPECT_NE(parsed.error.find(name), std::string::npos) << parsed.error;
    }
    EXPECT_NE(parse("", "").error.find("ORVEX_TOKEN"), std::string::npos);
}

}  // namespace
}  // namespace ox::launcher
