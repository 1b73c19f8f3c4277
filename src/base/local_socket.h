#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <string>

#include "base/unique_fd.h"

namespace ox {

/// A non-blocking connection to the stream socket at `path`. None, with the reason in errno, when
/// nobody accepts there at once: a server that has stopped accepting is not waited for.
[[nodiscard]] inline UniqueFd connect_local(const std::string& path) noexcept {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    path.copy(address.sun_path, path.size());
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket &&
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        socket.reset();
        errno = error;
    }
    return socket;
}

}  // namespace ox
