#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "base/unique_fd.h"

namespace ox::test {

/// A stream socket that is `attached` (bound or connected) to `path`; none where that fails.
inline UniqueFd unix_socket(const std::string& path,
                            int (*attached)(int, const sockaddr*, socklen_t)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) return {};
    path.copy(address.sun_path, path.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (attached(fd.get(), at, sizeof address) != 0) fd.reset();
    return fd;
}

/// A connection to the stream socket at `path`; none when nobody listens there.
inline UniqueFd connect_unix(const std::string& path) {
    return unix_socket(path, ::connect);
}

/// A stream socket at `path` that lets everybody connect and never says anything.
inline UniqueFd listen_unix(const std::string& path) {
    UniqueFd fd = unix_socket(path, ::bind);
    ::listen(fd.get(), 16);
    return fd;
}

}  // namespace ox::test
