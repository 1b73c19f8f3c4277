#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace ox {

/// The address of the socket at `path`. None, with the reason in errno, when the path is too long.
[[nodiscard]] inline std::optional<sockaddr_un> local_address(const std::string& path) noexcept {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    path.copy(address.sun_path, path.size());
    return address;
}

/// Non-blocking. None, with errno, when the server is gone or its listen queue is full.
[[nodiscard]] inline UniqueFd connect_local(const std::string& path) noexcept {
    const auto address = local_address(path);
    if (!address) return {};
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address),
                            sizeof *address) != 0) {
        const int error = errno;
        socket.reset();
        errno = error;
    }
    return socket;
}

[[nodiscard]] inline bool is_own_socket(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
           status.st_uid == ::getuid();
}

}  // namespace ox
