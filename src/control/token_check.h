#pragma once

#include <string>
#include <string_view>

namespace ox {

/// True when the SHA-256 of `token` is `expected_sha256_hex` (either case). The comparison takes
/// the same time wherever the two differ.
bool token_matches(std::string_view token, const std::string& expected_sha256_hex);

}  // namespace ox
