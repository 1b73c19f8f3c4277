#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "base/secret.h"

// Reading of one-line JSON objects. A key that is absent gives the fallback; a value of another
// kind throws. What is thrown is a std::exception; its text must go through `without_input` before
// it is logged.

namespace ox {

/// Throws when `line` is not one JSON object.
nlohmann::json parse_json_object(std::string_view line);

/// Takes the text out of `object`; empty when absent.
std::string take_text(nlohmann::json& object, const char* key);
/// Same, leaving nothing of it in `object`.
Secret take_secret(nlohmann::json& object, const char* key);

/// Any JSON number, its fraction dropped, brought into the range of the type; a 64-bit integer
/// without a sign keeps its bits.
int32_t int32_field(const nlohmann::json& object, const char* key, int32_t fallback);
int64_t int64_field(const nlohmann::json& object, const char* key, int64_t fallback);
uint32_t uint32_field(const nlohmann::json& object, const char* key, uint32_t fallback);
float float_field(const nlohmann::json& object, const char* key, float fallback);

}  // namespace ox
