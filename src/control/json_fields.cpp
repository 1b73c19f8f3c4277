#include "control/json_fields.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace ox {
namespace {

using nlohmann::json;

[[noreturn]] void throw_wrong_type(const json& value, const char* key, const char* wanted) {
    throw std::invalid_argument(std::string("'") + key + "' must be a " + wanted + ", but is " +
                                value.type_name());
}

// INT64_MAX is no double; 2^63 is.
constexpr double kTwoPow63 = 9223372036854775808.0;

int64_t saturated_int64(const json& number) {
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    if (number.is_number_unsigned()) {
        const auto value = number.get<uint64_t>();
        return std::in_range<int64_t>(value) ? static_cast<int64_t>(value) : kMax;
    }
    if (number.is_number_integer()) return number.get<int64_t>();
    const auto value = number.get<double>();
    if (value >= kTwoPow63) return kMax;
    if (value < -kTwoPow63) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

template <typename Integer>
Integer integer_field(const json& object, const char* key, Integer fallback) {
    const auto found = object.find(key);
    if (found == object.end()) return fallback;
    if (!found->is_number()) throw_wrong_type(*found, key, "number");
    const int64_t value = saturated_int64(*found);
    return static_cast<Integer>(std::clamp<int64_t>(value, std::numeric_limits<Integer>::min(),
                                                    std::numeric_limits<Integer>::max()));
}

std::string* text_field(json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end()) return nullptr;
    if (!found->is_string()) throw_wrong_type(*found, key, "string");
    return found->get_ptr<std::string*>();
}

}  // namespace

json parse_json_object(std::string_view line) {
    // The parser takes a NUL byte for the end of its input and would ignore what follows.
    if (line.find('\0') != std::string_view::npos) throw std::invalid_argument("NUL byte");
    json parsed = json::parse(line);
    if (!parsed.is_object()) {
        throw std::invalid_argument(std::string("an object is expected, not a ") +
                                    parsed.type_name());
    }
    return parsed;
}

std::string redacted_json_error(std::string_view message) {
    // The two places where the library quotes its input: bad tokens and numbers out of range.
    for (const std::string_view quote : {"; last read: '", " parsing '"})
        message = message.substr(0, message.find(quote));
    return std::string(message);
}

std::string take_text(json& object, const char* key) {
    std::string* text = text_field(object, key);
    return text == nullptr ? std::string() : std::move(*text);
}

Secret take_secret(json& object, const char* key) {
    std::string* text = text_field(object, key);
    if (text == nullptr) return {};
    Secret secret(*text);
    wipe(*text);
    return secret;
}

int32_t int32_field(const json& object, const char* key, int32_t fallback) {
    return integer_field(object, key, fallback);
}

int64_t int64_field(const json& object, const char* key, int64_t fallback) {
    const auto found = object.find(key);
    if (found != object.end() && found->is_number_unsigned()) {
        return static_cast<int64_t>(found->get<uint64_t>());
    }
    return integer_field(object, key, fallback);
}

uint32_t uint32_field(const json& object, const char* key, uint32_t fallback) {
    return integer_field(object, key, fallback);
}

float float_field(const json& object, const char* key, float fallback) {
    const auto found = object.find(key);
    if (found == object.end()) return fallback;
    if (!found->is_number()) throw_wrong_type(*found, key, "number");
    constexpr double kLimit = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(found->get<double>(), -kLimit, kLimit));
}

}  // namespace ox
