#include "video/portal/restore_token.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "base/environment.h"
#include "base/unique_fd.h"

namespace ox {
namespace {

/// Creates `folder` and its missing parents, for the owner only.
void make_private_folders(const std::filesystem::path& folder) {
    std::filesystem::path part;
    for (const auto& name : folder) {
        part /= name;
        ::mkdir(part.c_str(), S_IRWXU);
    }
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace

RestoreTokenFile::RestoreTokenFile(std::string path) : path_(std::move(path)) {}

RestoreTokenFile RestoreTokenFile::of_user() {
    const auto config = environment("XDG_CONFIG_HOME");
    const std::string folder =
        config.starts_with('/') ? std::string(config) : home_folder() + "/.config";
    return RestoreTokenFile(folder + "/orvex/portal_restore_token");
}

std::optional<std::string> RestoreTokenFile::read() const {
    // Non-blocking: the path may be a pipe.
    const UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) return std::nullopt;
    std::string token(kMaxRead, '\0');
    const ssize_t length = ::read(fd.get(), token.data(), token.size());
    if (length <= 0) return std::nullopt;
    token.resize(static_cast<size_t>(length));
    const bool has_nul = token.find('\0') != std::string::npos;
    if (has_nul || dbus_validate_utf8(token.c_str(), nullptr) == FALSE) return std::nullopt;
    return token;
}

bool RestoreTokenFile::write(std::string_view token) const {
    make_private_folders(std::filesystem::path(path_).parent_path());
    std::string scratch = path_ + ".XXXXXX";
    const UniqueFd fd(::mkostemp(scratch.data(), O_CLOEXEC));  // mode 0600
    if (!fd) return false;
    const bool replaced = write_all(fd.get(), token) && ::fsync(fd.get()) == 0 &&
                          ::rename(scratch.c_str(), path_.c_str()) == 0;
    if (!replaced) ::unlink(scratch.c_str());
    return replaced;
}

void RestoreTokenFile::remove() const {
    ::unlink(path_.c_str());
}

}  // namespace ox
