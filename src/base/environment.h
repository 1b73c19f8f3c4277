#pragma once

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

namespace ox {

// The program never changes its environment, so any thread may read it.

/// Value of an environment variable; empty when it is not set.
[[nodiscard]] inline std::string_view environment(const char* name) noexcept {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// A field of the user's entry in the user database; empty when there is none.
[[nodiscard]] inline std::string user_entry(char* passwd::*field) {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->*field : "";
}

[[nodiscard]] inline std::string user_name() {
    return user_entry(&passwd::pw_name);
}

/// The user's home folder, also where HOME is not set.
[[nodiscard]] inline std::string home_folder() {
    if (const auto home = environment("HOME"); !home.empty()) return std::string(home);
    return user_entry(&passwd::pw_dir);
}

/// XDG_RUNTIME_DIR or, outside of the user's sessions, logind's folder for them
/// (file-hierarchy(7)). Empty while there is none.
[[nodiscard]] inline std::string runtime_folder() {
    if (const auto folder = environment("XDG_RUNTIME_DIR"); !folder.empty()) {
        return std::string(folder);
    }
    std::string folder = "/run/user/" + std::to_string(::getuid());
    struct stat status {};
    const bool is_ours = ::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                         status.st_uid == ::getuid();
    return is_ours ? folder : "";
}

}  // namespace ox
