#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "base/secret.h"

// Reading of one-line JSON objects. An absent key gives the fallback; a value of another kind
// throws a std::exception, whose text must pass `redacted_json_error` before it is logged.

namespace ox {

/// Throws when `line` is not one JSON object.
nlohmann::json parse_json_object(std::string_view line);

/// Without the quotes of the input, which may show a token.
std::string redacted_json_error(std::string_view message);

/// Moves the text out of `object`; empty when absent.
std::string take_text(nlohmann::json& object, const char* key);
/// Same, and wipes it in `object`.
Secret take_secret(nlohmann::json& object, const char* key);

/// Truncated and clamped to the type's range; for int64 an unsigned integer keeps its bits.
int32_t int32_field(const nlohmann::json& object, const char* key, int32_t fallback);
int64_t int64_field(const nlohmann::json& object, const char* key, int64_t fallback);
uint32_t uint32_field(const nlohmann::json& object, const char* key, uint32_t fallback);
float float_field(const nlohmann::json& object, const char* key, float fallback);

}  // namespace ox
