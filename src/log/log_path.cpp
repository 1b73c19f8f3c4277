#include "log/log_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "base/environment.h"

namespace ox {
namespace {

constexpr mode_t kPrivateFolder = 0700;
constexpr const char* kLogFileName = "/agent.log";

void make_folder(const std::string& path) {
    ::mkdir(path.c_str(), kPrivateFolder);
}

// Folder of the running program without a trailing slash; empty when it is unknown.
std::string program_folder() {
    std::array<char, 4095> link{};
    const ssize_t length = ::readlink("/proc/self/exe", link.data(), link.size());
    if (length <= 0) return {};
    const std::string_view program(link.data(), static_cast<size_t>(length));
    const size_t slash = program.rfind('/');
    return slash == std::string_view::npos ? std::string{} : std::string(program.substr(0, slash));
}

// The user's folder for state; its parent is created.
std::string user_state_folder() {
    if (const auto state = environment("XDG_STATE_HOME"); state.starts_with('/')) {
        return std::string(state);
    }
    if (const auto home = environment("HOME"); !home.empty()) {
        const std::string local = std::string(home) + "/.local";
        make_folder(local);
        return local + "/state";
    }
    return "/tmp";
}

}  // namespace

std::string default_log_path() {
    if (const auto given = environment("OX_LOG_FILE"); !given.empty()) return std::string(given);
    const std::string folder = program_folder();
    if (!folder.empty() && ::access(folder.c_str(), W_OK) == 0) return folder + kLogFileName;
    return state_log_path();
}

std::string state_folder() {
    const std::string base = user_state_folder();
    make_folder(base);
    std::string folder = base + "/orvex";
    make_folder(folder);
    return folder;
}

std::string state_log_path() {
    return state_folder() + kLogFileName;
}

std::string rotated_log_name(const std::string& path, int n) {
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    const bool has_extension =
        dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const size_t stem = has_extension ? dot : path.size();
    return path.substr(0, stem) + "." + std::to_string(n) + path.substr(stem);
}

}  // namespace ox
