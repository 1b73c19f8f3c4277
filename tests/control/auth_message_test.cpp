#include "control/auth_message.h"

#include <gtest/gtest.h>

#include <string>

namespace ox {
namespace {

TEST(AuthMessage, FillsInWhatIsMissingAndBringsNumbersIntoRange) {
    const struct {
        const char* fields;
        int32_t width;
        uint32_t caps;
    } rows[] = {
        {"", 1920, 0},
        {R"(,"width":-60.9,"caps":-5)", -60, 0},
        {R"(,"width":1099511627776,"caps":4294967293)", INT32_MAX, 4294967293u},
        {R"(,"width":-1099511627776,"caps":18446744073709551615)", INT32_MIN, UINT32_MAX},
        {R"(,"width":1e300,"caps":-1e300)", INT32_MAX, 0},
    };
    for (const auto& row : rows) {
        AuthMessage message;
        const std::string line = R"({"token":"a\u0000b","type":"auth")" + std::string(row.fields);
        ASSERT_FALSE(parse_auth_message(line + "}", message)) << line;
        EXPECT_EQ(message.width, row.width) << line;
        EXPECT_EQ(message.caps, row.caps) << line;
        EXPECT_EQ(message.token, std::string("a\0b", 3));
        EXPECT_EQ(message.udp_ip, "");
        EXPECT_EQ(message.bitrate, 15000);
    }
}

TEST(AuthMessage, RefusesWithATextThatIsFitForTheLog) {
    const struct {
        std::string line;
        const char* text;  ///< part of it
    } rows[] = {
        {"\xff\x00\x1b[2J garbage", "invalid literal"},
        {std::string("{\"type\":\"auth\"}\0{", 17), "NUL byte"},
        {R"({"type":"auth","token":["SECRET"]})", "'token' must be a string, but is array"},
        {R"({"type":"auth","fps":null})", "'fps' must be a number, but is null"},
        {R"({"type":"auth","token":"SECRET)", "missing closing quote"},
        {R"({"type":"auth","token":SECRET})", "invalid literal"},
        {R"({"type":"auth","token":1e99999})", "number overflow"},
        {R"({"type":"a\nb\u001b[2J\u009b"})", "a?b?[2J??"},
        {R"({"type":")" + std::string(500, 'x') + "\"}", "xxx..."},
    };
    for (const auto& row : rows) {
        AuthMessage message;
        const auto error = parse_auth_message(row.line, message);
        ASSERT_TRUE(error) << row.line;
        const auto& text = error->text;
        EXPECT_NE(text.find(row.text), std::string::npos) << text;
        EXPECT_EQ(text.find("SECRET"), std::string::npos) << text;
        EXPECT_EQ(text.find("99999"), std::string::npos) << text;
        EXPECT_LT(text.size(), 200u) << text;
    }
}

// Twenty times deeper than any line can be: one stack frame per level would not fit.
TEST(AuthMessage, NestingCostsNoStack) {
    AuthMessage message;
    const std::string deep = std::string(300'000, '[') + std::string(300'000, ']');
    EXPECT_FALSE(parse_auth_message(R"({"type":"auth","x":)" + deep + "}", message));
}

}  // namespace
}  // namespace ox
