#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ox {

/// The longest log line.
inline constexpr size_t kMaxLoggedText = 2047;
/// Shorter secrets are not masked: they protect nothing and occur in ordinary words.
inline constexpr size_t kShortestSecret = 16;

/// Foreign text for the log: at most `max` bytes of valid UTF-8 in one line, without control
/// characters and with `secret` (of `kShortestSecret` bytes or more) masked.
std::string loggable(std::string_view text, size_t max = kMaxLoggedText,
                     std::string_view secret = {});

/// Masks the values of a message's secret members (session key, hash of its token), at any depth.
std::string redact_secrets(std::string_view json_text);

/// For text that is no JSON: masks all but punctuation behind the first mention of a secret member.
std::string redact_broken_json(std::string_view text);

}  // namespace ox
