#pragma once

namespace ox::build {

inline constexpr const char* version() {
    return "0.4.448";
}
inline constexpr const char* commit() {
    return "4792e94";
}
inline constexpr const char* tag() {
    return "0.4.448 (4792e94)";
}

}  // namespace ox::build
