#include "video/x11_diagnosis.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "base/environment.h"
#include "base/unique_fd.h"
#include "desktop/desktop.h"

namespace ox {
namespace {

/// Whether a server takes connections at `path`; in the abstract namespace when it starts with NUL.
bool listens(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    const bool abstract = path.front() == '\0';
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 0 : 1));
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // EAGAIN: a server whose queue is full.
    return socket &&
           (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 ||
            errno == EAGAIN || errno == EACCES);
}

DisplayFacts::Server server_of(const std::string& name) {
    using Server = DisplayFacts::Server;
    if (name.empty()) return Server::NotNamed;
    const auto number = local_display_number(name);
    if (!number) return Server::Elsewhere;
    const std::string path = "/tmp/.X11-unix/X" + std::to_string(*number);
    return listens(path) || listens(std::string(1, '\0') + path) ? Server::Listening
                                                                 : Server::Absent;
}

}  // namespace

DisplayFacts read_display_facts(const std::string& display) {
    DisplayFacts facts;
    facts.name = display.empty() ? environment("DISPLAY") : std::string_view(display);
    facts.server = server_of(facts.name);
    facts.authority = environment("XAUTHORITY");
    if (facts.authority.empty()) facts.authority = home_folder() + "/.Xauthority";
    facts.authority_readable = ::access(facts.authority.c_str(), R_OK) == 0;
    return facts;
}

Diagnosis diagnose(const DisplayFacts& facts) {
    using Server = DisplayFacts::Server;
    switch (facts.server) {
        case Server::NotNamed:
            return {"DISPLAY is not set, and no display of this user was found",
                    "log in to the desktop before the next session, or give --display (usually "
                    ":0)"};
        case Server::Elsewhere:
            return {"the display is not one of this PC",
                    "give --display as :0 or :1, whichever the desktop session has in DISPLAY"};
        case Server::Absent:
            return {"no X server runs as " + facts.name,
                    "log in to an X11 desktop session, or give the display of a running one with "
                    "--display"};
        case Server::Listening:
            break;
    }
    return {"the X server refused the connection (authority file " + facts.authority +
                (facts.authority_readable ? " does not hold its key)" : " cannot be read)"),
            "run the agent as the user who is logged in, with that session's XAUTHORITY"};
}

}  // namespace ox
