#include "base/text.h"

#include <algorithm>
#include <cstdint>

namespace ox::text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr std::string_view kEllipsis = "\u2026";
constexpr std::string_view kNoBreakSpace = "\u00A0";

struct Range {
    char32_t first;
    char32_t last;
};

// CJK, Hangul, full-width forms, pictographs: two columns each. Ascending.
constexpr Range kWide[] = {
    {0x1100, 0x115F}, {0x2E80, 0xA4CF}, {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE4F},
    {0xFF00, 0xFF60}, {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD},
};
constexpr Range kCombining{0x0300, 0x036F};

bool contains(Range range, char32_t cp) {
    return cp >= range.first && cp <= range.last;
}

unsigned byte_at(std::string_view s, size_t index) {
    return static_cast<unsigned char>(s[index]);
}

// Number of bytes that a sequence beginning with `lead` has; 0 when none begins so.
size_t sequence_length(unsigned lead) {
    if (lead < 0x80) return 1;
    if ((lead & 0xE0U) == 0xC0) return 2;
    if ((lead & 0xF0U) == 0xE0) return 3;
    if ((lead & 0xF8U) == 0xF0) return 4;
    return 0;
}

bool is_control(char32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F);
}

std::vector<std::string_view> split_words(std::string_view s) {
    std::vector<std::string_view> words;
    for (size_t begin = s.find_first_not_of(' '); begin != std::string_view::npos;) {
        const size_t end = std::min(s.find(' ', begin), s.size());
        words.push_back(s.substr(begin, end - begin));
        begin = s.find_first_not_of(' ', end);
    }
    return words;
}

// Invisible: soft hyphen, zero-width and directional marks, variation selectors, tags.
constexpr Range kInvisible[] = {
    {0x00AD, 0x00AD}, {0x061C, 0x061C}, {0x180B, 0x180F}, {0x200B, 0x200F}, {0x2028, 0x202E},
    {0x2060, 0x206F}, {0xFE00, 0xFE0F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF},
};
constexpr Range kSurrogates{0xD800, 0xDFFF};
constexpr char32_t kLastCodePoint = 0x10FFFF;

bool is_invisible(char32_t cp) {
    if (cp < kInvisible[0].first) return false;
    return std::any_of(std::begin(kInvisible), std::end(kInvisible),
                       [cp](Range r) { return contains(r, cp); });
}

}  // namespace

void append_cp(std::string& out, char32_t cp) {
    const auto put = [&out](char32_t byte) { out += static_cast<char>(byte); };
    const auto put_continuation = [&](unsigned shift) { put(0x80 | ((cp >> shift) & 0x3F)); };
    if (cp < 0x80) {
        put(cp);
    } else if (cp < 0x800) {
        put(0xC0 | (cp >> 6));
        put_continuation(0);
    } else if (cp < 0x10000) {
        put(0xE0 | (cp >> 12));
        put_continuation(6);
        put_continuation(0);
    } else {
        put(0xF0 | (cp >> 18));
        put_continuation(12);
        put_continuation(6);
        put_continuation(0);
    }
}

int columns(char32_t cp) {
    if (cp < kCombining.first) return cp == 0 ? 0 : 1;
    if (contains(kCombining, cp)) return 0;
    if (cp < kWide[0].first) return 1;
    const bool wide =
        std::any_of(std::begin(kWide), std::end(kWide), [cp](Range r) { return contains(r, cp); });
    return wide ? 2 : 1;
}

char32_t next_cp(std::string_view s, size_t& index) {
    const unsigned lead = byte_at(s, index);
    const size_t length = sequence_length(lead);
    if (length == 1) {
        ++index;
        return lead;
    }
    if (length == 0 || s.size() - index < length) {
        ++index;
        return kReplacement;
    }
    // The lead byte carries 7 - length payload bits, each continuation byte 6.
    char32_t cp = lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        const unsigned next = byte_at(s, index + i);
        if ((next & 0xC0U) != 0x80) {
            ++index;
            return kReplacement;
        }
        cp = (cp << 6) | (next & 0x3FU);
    }
    index += length;
    return cp;
}

int width(std::string_view s) {
    int total = 0;
    for (size_t index = 0; index < s.size();)
        total += columns(next_cp(s, index));
    return total;
}

std::string clip(std::string_view s, int max) {
    if (max < 1) return {};
    if (width(s) <= max) return std::string(s);
    size_t end = 0;
    int used = 0;
    for (size_t index = 0; index < s.size(); end = index) {
        used += columns(next_cp(s, index));
        if (used > max - 1) break;
    }
    std::string_view kept = s.substr(0, end);
    while (kept.ends_with(' '))
        kept.remove_suffix(1);
    if (kept.ends_with(kNoBreakSpace)) kept.remove_suffix(kNoBreakSpace.size());
    return std::string(kept).append(kEllipsis);
}

std::string clip_left(std::string_view s, int max) {
    if (max < 1) return {};
    const int total = width(s);
    if (total <= max) return std::string(s);
    size_t begin = 0;
    for (int rest = total; rest > max - 1;)
        rest -= columns(next_cp(s, begin));
    return std::string(kEllipsis).append(s.substr(begin));
}

std::string sanitize(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t index = 0; index < s.size();) {
        const char32_t cp = next_cp(s, index);
        if (!is_control(cp)) append_cp(out, cp);
    }
    return out;
}

std::string printable(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t index = 0; index < s.size();) {
        char32_t cp = next_cp(s, index);
        if (cp > kLastCodePoint || contains(kSurrogates, cp)) cp = kReplacement;
        if (!is_control(cp) && !is_invisible(cp)) append_cp(out, cp);
    }
    return out;
}

std::vector<std::string> wrap(std::string_view s, int max) {
    std::vector<std::string> lines;
    if (max < 1) return lines;
    std::string line;
    int used = 0;
    for (const std::string_view word : split_words(s)) {
        const int wide = width(word);
        if (!line.empty() && used + 1 + wide <= max) {
            line.append(1, ' ').append(word);
            used += 1 + wide;
            continue;
        }
        if (!line.empty()) lines.push_back(clip(line, max));
        line = word;
        used = wide;
    }
    if (!line.empty()) lines.push_back(clip(line, max));
    return lines;
}

}  // namespace ox::text
