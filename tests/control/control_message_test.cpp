#include "control/control_message.h"

#include <gtest/gtest.h>

#include <string>

namespace ox {
namespace {

// The message as a text that a row of the table can be compared with.
std::string read(const std::string& line) {
    const auto message = parse_control_line(line);
    if (const auto* ping = std::get_if<PingMessage>(&message)) return std::to_string(ping->ts);
    if (const auto* named = std::get_if<NamedMessage>(&message)) return "named " + named->type;
    if (const auto* bad = std::get_if<MalformedMessage>(&message)) return "malformed " + bad->why;
    if (const auto* change = std::get_if<SettingsChange>(&message)) {
        return "settings " + std::to_string(change->bitrate) + " " + std::to_string(change->fps) +
               " " + std::to_string(change->width) + " " + std::to_string(change->height);
    }
    return std::holds_alternative<std::monostate>(message) ? "none" : "stats";
}

TEST(ControlMessage, ReadsEachKind) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"ts":-9223372036854775808,"type":"ping"})", "-9223372036854775808"},
        {R"({"ts":18446744073709551615,"type":"ping"})", "9223372036854775807"},
        {R"({"ts":-1e19,"type":"ping"})", "-9223372036854775808"},
        {R"({"type":"anything else","ts":"no ping, so of any type"})", "named anything else"},
        {R"({"type":"set_settings","fps":30.7,"height":1e300,"width":-1099511627776})",
         "settings 0 30 -2147483648 2147483647"},
        {"{}", "none"},
        {R"({"ts":"soon","type":"ping"})", "malformed 'ts' must be a number, but is string"},
        {R"({"type":"stats","rtt_ms":{}})", "malformed 'rtt_ms' must be a number, but is object"},
        {R"("ping")", "malformed an object is expected, not a string"},
    };
    for (const auto& [line, message] : rows) {
        EXPECT_EQ(read(line), message) << line;
    }
    EXPECT_EQ(make_pong(-12345), R"({"ts":-12345,"type":"pong"})");
}

}  // namespace
}  // namespace ox
