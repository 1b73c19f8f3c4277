#include "app/panic_listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "app/process_flags.h"
#include "base/clock.h"
#include "base/environment.h"
#include "base/local_socket.h"
#include "base/thread.h"
#include "base/unique_fd.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr int kPollMs = 200;
constexpr size_t kReadBytes = 63;
/// Clients that have not sent anything; one more replaces the oldest.
constexpr size_t kMaxSilentClients = 16;

/// Binds and listens at `path`. The file has mode 0600 from the beginning.
UniqueFd listen_at(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        OX_WARN("Panic: cannot create socket (%s) — SIGUSR1 still works", std::strerror(errno));
        return {};
    }
    // On Linux bind(2) gives the file the mode of the socket's own inode, less the umask.
    ::fchmod(socket.get(), S_IRUSR | S_IWUSR);
    const auto address = local_address(path);
    if (address &&
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0 &&
        ::listen(socket.get(), 4) == 0) {
        ::chmod(path.c_str(), S_IRUSR | S_IWUSR);
        return socket;
    }
    OX_WARN("Panic: cannot listen on %s (%s) — SIGUSR1 still works", path.c_str(),
            std::strerror(errno));
    return {};
}

/// The listening socket and its file. An agent that is started later replaces the file by its own,
/// and removes that when it ends.
class PanicSocket {
  public:
    explicit PanicSocket(std::string path) : path_(std::move(path)) { open(); }
    ~PanicSocket() {
        if (own_ && identify(path_) == own_) ::unlink(path_.c_str());
    }
    PanicSocket(const PanicSocket&) = delete;
    PanicSocket& operator=(const PanicSocket&) = delete;

    [[nodiscard]] bool is_open() const { return socket_.is_open(); }
    [[nodiscard]] int get() const { return socket_.get(); }

    /// Makes the file again when there is none, or one that nobody listens to.
    void restore_if_lost() {
        if (identify(path_) != own_ && is_free()) open();
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
        // Between the user's sessions there may be no folder.
        if (!present) return identify(path_.substr(0, path_.rfind('/'))).has_value();
        return S_ISSOCK(present->mode) && !connect_local(path_) && errno == ECONNREFUSED;
    }

    void open() {
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

/// The clients that have not sent their command yet. It may be typed by hand, so there is no time
/// limit, and no client blocks another.
class SilentClients {
  public:
    void accept_from(int listener) {
        UniqueFd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client) return;
        if (clients_.size() == kMaxSilentClients) clients_.erase(clients_.begin());
        clients_.push_back(std::move(client));
    }

    void add_to(std::vector<pollfd>& watched) const {
        for (const UniqueFd& client : clients_)
            watched.push_back({.fd = client.get(), .events = POLLIN, .revents = 0});
    }

    /// Reads once from each client that is ready in `watched`, as filled by `add_to`, and closes
    /// it.
    void read_ready(std::span<const pollfd> watched) {
        for (size_t i = 0; i < watched.size(); ++i) {
            if (watched[i].revents == 0) continue;
            read_command(clients_[i].get());
            clients_[i].reset();
        }
        std::erase_if(clients_, [](const UniqueFd& client) { return !client; });
    }

  private:
    static void read_command(int client) {
        std::array<char, kReadBytes> text{};
        const ssize_t length = ::read(client, text.data(), text.size());
        if (length < 1) return;
        const std::string_view command(text.data(), static_cast<size_t>(length));
        if (command.find("stop") == std::string_view::npos) return;
        OX_ERROR("PANIC: local stop requested — ending the session now");
        panic_flag().exchange(true);
    }

    std::vector<UniqueFd> clients_;  ///< oldest first
};

void listen_for_stop(const std::stop_token& stop) {
    constexpr std::chrono::seconds kCheckPeriod{2};
    PanicSocket socket(panic_socket_path());
    SilentClients clients;
    std::vector<pollfd> watched;
    auto next_check = SteadyClock::now() + kCheckPeriod;
    while (socket.is_open() && !stop.stop_requested()) {
        watched.assign(1, {.fd = socket.get(), .events = POLLIN, .revents = 0});
        clients.add_to(watched);
        if (::poll(watched.data(), watched.size(), kPollMs) > 0) {
            clients.read_ready(std::span(watched).subspan(1));
            if (watched.front().revents != 0) clients.accept_from(socket.get());
        }
        if (SteadyClock::now() < next_check) continue;
        socket.restore_if_lost();
        next_check = SteadyClock::now() + kCheckPeriod;
    }
}

}  // namespace

std::string panic_socket_path() {
    if (const auto folder = environment("XDG_RUNTIME_DIR"); !folder.empty()) {
        return std::string(folder) + "/orvex-agent-panic.sock";
    }
    return "/tmp/orvex-agent-" + std::to_string(::getuid()) + "-panic.sock";
}

std::jthread start_panic_listener() {
    return start_thread([](const std::stop_token& stop) { listen_for_stop(stop); },
                        [](const char* reason) {
                            OX_WARN("Panic: cannot start the listener (%s) — SIGUSR1 still works",
                                    reason);
                        });
}

}  // namespace ox
