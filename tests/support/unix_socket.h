#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "base/unique_fd.h"

namespace ox::test {

/// A connection to the stream socket at `path`; none when nobody listens there.
inline UniqueFd connect_unix(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) return {};
    path.copy(address.sun_path, path.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* to = reinterpret_cast<const sockaddr*>(&address);
    if (::connect(fd.get(), to, sizeof address) != 0) return {};
    return fd;
}

/// A stream socket at `path` that lets everybody connect and never says anything.
inline UniqueFd listen_unix(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) return {};
    path.copy(address.sun_path, path.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(fd.get(), at, sizeof address) != 0 || ::listen(fd.get(), 16) != 0) return {};
    return fd;
}

}  // namespace ox::test
