#include "base/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ox::text {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using std::string_view_literals::operator""sv;

TEST(Text, Width) {
    const std::pair<std::string_view, int> cases[] = {
        {"ИГРОК ПОДКЛЮЧЁН", 15},
        {"\u6F22e\u0301a\u00A0b", 2 + 1 + 3},
        {"\0\x1B"sv, 1},
        {"\uFFDF\uFFE0\uFFE6\uFFE7", 1 + 2 + 2 + 1},
        {"\u02FF\u0300\u036F\u0370", 2},
    };
    for (const auto& [text, columns] : cases)
        EXPECT_EQ(width(text), columns) << text;
}

TEST(Text, ClipOnEitherSide) {
    const std::tuple<std::string_view, int, std::string_view, std::string_view> cases[] = {
        {"Connected to the platform", 10, "Connected…", "… platform"},
        {"abc de", 5, "abc…", "…c de"},
        {"abc", -3, "", ""},
        {"ab \u00A0cd", 5, "ab …", "… \u00A0cd"},
        {"a\u00A0\u00A0bc", 4, "a\u00A0…", "…\u00A0bc"},
        {"a\u00A0 bcd", 4, "a…", "…bcd"},
        {"漢字漢字", 6, "漢字…", "…漢字"},
        {"abe\u0301xyz", 4, "abe\u0301…", "…\u0301xyz"},
    };
    for (const auto& [text, max, right, left] : cases) {
        EXPECT_EQ(clip(text, max), right) << text;
        EXPECT_EQ(clip_left(text, max), left) << text;
    }
}

TEST(Text, SanitizeDropsControlsAndReplacesMalformedBytes) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"a\tb\x1B[31m\r\n\x7F", "ab[31m"},
        {"\u0080x\u009By\u00A0z \u0416\U0001F3AE", "xy\u00A0z \u0416\U0001F3AE"},
        {"\xD0 \xFF\xD0z\xF0\x9F\x8E", "\uFFFD \uFFFD\uFFFDz\uFFFD\uFFFD\uFFFD"},
        {"\xC0\x9B[2J", "[2J"},                                            // an escape in disguise
        {"\xED\xA0\x80\xF7\xBF\xBF\xBF", "\xED\xA0\x80\xF7\xBF\xBF\xBF"},  // unchanged
    };
    for (const auto& [text, clean] : cases)
        EXPECT_EQ(sanitize(text), clean);
}

TEST(Text, WrapBreaksAtSpacesOnly) {
    EXPECT_THAT(wrap("   ", 10), IsEmpty());
    EXPECT_THAT(wrap("  one   two  three ", 8), ElementsAre("one two", "three"));
    EXPECT_THAT(wrap("не\u00A0принят и", 10), ElementsAre("не\u00A0принят", "и"));
    EXPECT_THAT(wrap("a 12345678901 b", 5), ElementsAre("a", "1234…", "b"));
}

}  // namespace
}  // namespace ox::text
