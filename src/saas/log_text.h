#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ox {

/// No log line takes more.
inline constexpr size_t kMaxLoggedText = 2047;
/// A shorter secret is not masked: it protects nothing and would be found in ordinary words.
inline constexpr size_t kShortestSecret = 16;

/// `text` from outside as it may be logged: at most `max` bytes, in one line, no control
/// characters, valid UTF-8, and `secret` (from `kShortestSecret` bytes on) masked wherever it
/// occurs.
std::string loggable(std::string_view text, size_t max = kMaxLoggedText,
                     std::string_view secret = {});

/// A message of the backend with the values of its secret members (the session's key and the hash
/// of its token) masked character by character: same length, everything else as it came. Members
/// are found at any depth. Works on broken JSON too, but `mask_broken_json` is safer there.
std::string mask_secrets(std::string_view json_text);

/// For text that is no JSON, so that where a value ends is unknown: masks every letter, digit and
/// the like behind the first mention of a secret member. Same length.
std::string mask_broken_json(std::string_view text);

}  // namespace ox
