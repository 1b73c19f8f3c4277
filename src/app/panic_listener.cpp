#include "app/panic_listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "app/process_flags.h"
#include "base/clock.h"
#include "base/local_socket.h"
#include "base/unique_fd.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr int kPollMs = 200;
constexpr size_t kReadBytes = 63;
/// Clients that may be connected without having said their word; one more takes the place of the
/// first.
constexpr size_t kMostSilent = 16;

/// Binds and listens at `path`, readable and writable by the owner alone from the first moment on.
UniqueFd listen_at(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        OX_WARN("Panic: cannot create socket (%s) — SIGUSR1 still works", std::strerror(errno));
        return {};
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
    } else {
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        // On Linux bind(2) gives the file the mode of the socket's own inode, less the umask.
        ::fchmod(socket.get(), S_IRUSR | S_IWUSR);
        if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0 &&
            ::listen(socket.get(), 4) == 0) {
            ::chmod(path.c_str(), S_IRUSR | S_IWUSR);
            return socket;
        }
    }
    OX_WARN("Panic: cannot listen on %s (%s) — SIGUSR1 still works", path.c_str(),
            std::strerror(errno));
    return {};
}

/// The listening socket and its file. An agent that is started later puts its own file in the place
/// of ours, and takes it along when it ends.
class PanicSocket {
  public:
    explicit PanicSocket(std::string path) : path_(std::move(path)) { take(); }
    ~PanicSocket() {
        if (own_ && identify(path_) == own_) ::unlink(path_.c_str());
    }
    PanicSocket(const PanicSocket&) = delete;
    PanicSocket& operator=(const PanicSocket&) = delete;

    [[nodiscard]] bool is_open() const { return socket_.is_open(); }
    [[nodiscard]] int get() const { return socket_.get(); }

    /// Puts the file there again when it has gone, or nobody listens behind the one that is there.
    void keep() {
        if (identify(path_) != own_ && is_free()) take();
    }

  private:
    struct FileIdentity {
        dev_t device = 0;
        ino_t inode = 0;
        mode_t mode = 0;
        bool operator==(const FileIdentity&) const = default;
    };

    static std::optional<FileIdentity> identify(const std::string& path) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
        return FileIdentity{status.st_dev, status.st_ino, status.st_mode};
    }

    [[nodiscard]] bool is_free() const {
        const auto present = identify(path_);
        // The folder may be gone until the user's next session.
        if (!present) return identify(path_.substr(0, path_.rfind('/'))).has_value();
        return S_ISSOCK(present->mode) && !connect_local(path_) && errno == ECONNREFUSED;
    }

    void take() {
        ::unlink(path_.c_str());
        UniqueFd socket = listen_at(path_);
        if (!socket) return;
        socket_ = std::move(socket);
        own_ = identify(path_);
        OX_INFO(
            "Panic: local stop channel at %s (echo stop | socat - UNIX-CONNECT:%s) or kill -USR1 "
            "%d",
            path_.c_str(), path_.c_str(), ::getpid());
    }

    std::string path_;
    UniqueFd socket_;
    std::optional<FileIdentity> own_;
};

/// The clients that have connected and not said their word yet. Each has all the time it wants,
/// since the word may be typed by hand, and none keeps another waiting.
class SilentClients {
  public:
    void accept_from(int listener) {
        UniqueFd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client) return;
        if (clients_.size() == kMostSilent) clients_.erase(clients_.begin());
        clients_.push_back(std::move(client));
    }

    void add_to(std::vector<pollfd>& watched) const {
        for (const UniqueFd& client : clients_)
            watched.push_back({.fd = client.get(), .events = POLLIN, .revents = 0});
    }

    /// Reads once from each that `watched`, as filled by `add_to`, shows ready, and lets go of it.
    void hear(std::span<const pollfd> watched) {
        for (size_t i = 0; i < watched.size(); ++i) {
            if (watched[i].revents == 0) continue;
            hear_word(clients_[i].get());
            clients_[i].reset();
        }
        std::erase_if(clients_, [](const UniqueFd& client) { return !client; });
    }

  private:
    static void hear_word(int client) {
        std::array<char, kReadBytes> text{};
        const ssize_t length = ::read(client, text.data(), text.size());
        if (length < 1) return;
        const std::string_view word(text.data(), static_cast<size_t>(length));
        if (word.find("stop") == std::string_view::npos) return;
        OX_ERROR("PANIC: local stop requested — ending the session now");
        panic_flag().exchange(true);
    }

    std::vector<UniqueFd> clients_;  ///< oldest first
};

void listen_for_stop(const std::stop_token& stop) {
    constexpr std::chrono::seconds kKeepPeriod{2};
    PanicSocket socket(panic_socket_path());
    SilentClients clients;
    std::vector<pollfd> watched;
    auto next_keep = SteadyClock::now() + kKeepPeriod;
    while (socket.is_open() && !stop.stop_requested()) {
        watched.assign(1, {.fd = socket.get(), .events = POLLIN, .revents = 0});
        clients.add_to(watched);
        if (::poll(watched.data(), watched.size(), kPollMs) > 0) {
            clients.hear(std::span(watched).subspan(1));
            if (watched.front().revents != 0) clients.accept_from(socket.get());
        }
        if (SteadyClock::now() < next_keep) continue;
        socket.keep();
        next_keep = SteadyClock::now() + kKeepPeriod;
    }
}

}  // namespace

std::string panic_socket_path() {
    const char* runtime_dir = std::getenv("XDG_RUNTIME_DIR");
    if (runtime_dir != nullptr && *runtime_dir != '\0') {
        return std::string(runtime_dir) + "/orvex-agent-panic.sock";
    }
    return "/tmp/orvex-agent-" + std::to_string(::getuid()) + "-panic.sock";
}

std::jthread start_panic_listener() {
    try {
        return std::jthread([](const std::stop_token& stop) { listen_for_stop(stop); });
    } catch (const std::system_error& error) {
        OX_WARN("Panic: cannot start the listener (%s) — SIGUSR1 still works", error.what());
        return {};
    }
}

}  // namespace ox
