#include "saas/redaction.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "base/text.h"

namespace ox {
namespace {

constexpr std::array<std::string_view, 2> kSecretMembers{"encryption_key", "session_token_sha256"};
constexpr std::string_view kBlank = " \t\r\n";
constexpr char kMask = '*';

/// Index behind the string literal that opens at `open`, or the text's end.
size_t literal_end(std::string_view text, size_t open) {
    for (size_t at = open + 1; at < text.size(); ++at) {
        if (text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            return at + 1;
        }
    }
    return text.size();
}

/// Index behind the JSON value that begins at `at`.
size_t value_end(std::string_view text, size_t at) {
    size_t depth = 0;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '"') {
            at = literal_end(text, at) - 1;
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (depth > 0 && (c == ']' || c == '}')) {
            --depth;
        } else if (depth == 0) {
            if (c == ',' || c == ']' || c == '}' || kBlank.find(c) != kBlank.npos) return at;
            continue;  // inside a number or a word
        } else {
            continue;
        }
        if (depth == 0) return at + 1;
    }
    return text.size();
}

bool is_secret_member(std::string_view literal) {
    std::string name(literal);
    if (name.find('\\') != name.npos) {
        const auto parsed = nlohmann::json::parse(name, nullptr, false);
        if (!parsed.is_string()) return false;
        name = parsed.get<std::string>();
    } else if (name.size() >= 2) {
        name = name.substr(1, name.size() - 2);
    }
    return std::find(kSecretMembers.begin(), kSecretMembers.end(), name) != kSecretMembers.end();
}

size_t skip_blank(std::string_view text, size_t at) {
    return std::min(text.find_first_not_of(kBlank, at), text.size());
}

/// Masks everything from `at` to `end` but quotes and brackets.
void mask_range(std::string& text, size_t at, size_t end) {
    constexpr std::string_view kKept = "\"'[]{}:, \t\r\n";
    for (; at < end; ++at) {
        if (kKept.find(text[at]) == kKept.npos) text[at] = kMask;
    }
}

}  // namespace

std::string loggable(std::string_view text, size_t max, std::string_view secret) {
    // First of all: half a secret, left by the cut below, would not be found.
    std::string shown(text);
    if (secret.size() >= kShortestSecret) {
        for (size_t at = shown.find(secret); at != shown.npos; at = shown.find(secret, at + 1)) {
            std::fill_n(shown.begin() + static_cast<std::ptrdiff_t>(at), secret.size(), kMask);
        }
    }
    std::replace(shown.begin(), shown.end(), '\n', ' ');  // a word break survives
    shown = text::sanitize(shown);
    if (shown.size() > max) {
        size_t end = max;
        while (end > 0 && (static_cast<unsigned char>(shown[end]) & 0xC0U) == 0x80U)
            --end;
        shown.resize(end);
    }
    return shown;
}

std::string redact_secrets(std::string_view json_text) {
    std::string masked(json_text);
    for (size_t at = json_text.find('"'); at < json_text.size();) {
        const size_t name_end = literal_end(json_text, at);
        const size_t colon = skip_blank(json_text, name_end);
        size_t next = name_end;
        if (colon < json_text.size() && json_text[colon] == ':' &&
            is_secret_member(json_text.substr(at, name_end - at))) {
            const size_t value = skip_blank(json_text, colon + 1);
            next = value_end(json_text, value);
            const bool text_value = value < json_text.size() && json_text[value] == '"';
            if (text_value) {
                const size_t last =
                    json_text[next - 1] == '"' && next - 1 > value ? next - 1 : next;
                for (size_t i = value + 1; i < last; ++i)
                    masked[i] = kMask;
            } else {
                mask_range(masked, value, next);
            }
        }
        at = json_text.find('"', next);
    }
    return masked;
}

std::string redact_broken_json(std::string_view text) {
    std::string masked = redact_secrets(text);
    for (const std::string_view name : kSecretMembers) {
        if (const size_t at = masked.find(name); at != masked.npos) {
            mask_range(masked, at + name.size(), masked.size());
        }
    }
    return masked;
}

}  // namespace ox
