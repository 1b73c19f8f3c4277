#include "desktop/x_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "base/byte_order.h"
#include "base/environment.h"
#include "base/local_socket.h"
#include "desktop/folder_entries.h"

namespace ox {
namespace {

constexpr const char* kSocketFolder = "/tmp/.X11-unix";
constexpr const char* kSocketName = "X";

std::string socket_of(int display) {
    return std::string(kSocketFolder) + "/" + kSocketName + std::to_string(display);
}

enum class Owner { Us, Root, SomebodyElse };

/// Who runs the server. Anybody can put a socket there: others' are not to be told a cookie, nor to
/// show the player a picture.
Owner owner_of(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return Owner::SomebodyElse;
    if (status.st_uid == ::getuid()) return Owner::Us;
    return status.st_uid == 0 ? Owner::Root : Owner::SomebodyElse;
}

void append_padded(std::vector<uint8_t>& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.resize((bytes.size() + 3) / 4 * 4);
}

/// X Window System Protocol 11.0, chapter 8, "Connection Setup".
std::vector<uint8_t> connection_setup(const XAuthorization& authorization) {
    constexpr uint16_t kProtocolMajor = 11;
    std::vector<uint8_t> bytes(12);
    bytes[0] = 'l';  // little-endian
    store_le(&bytes[2], kProtocolMajor);
    store_le(&bytes[6], static_cast<uint16_t>(authorization.name.size()));
    store_le(&bytes[8], static_cast<uint16_t>(authorization.data.size()));
    append_padded(bytes, authorization.name);
    append_padded(bytes, authorization.data);
    return bytes;
}

/// One connection to an X server, in the byte order that `connection_setup` names.
class XConversation {
  public:
    XConversation(UniqueFd socket, SteadyClock::time_point deadline,
                  const std::function<bool()>& cancelled)
        : socket_(std::move(socket)), deadline_(deadline), cancelled_(cancelled) {}

    /// Whether the server lets a client in that says this of itself; nothing when it does not
    /// answer.
    std::optional<bool> enter(const XAuthorization& authorization) {
        constexpr uint8_t kSuccess = 1;
        std::array<uint8_t, 1> answer{};
        if (!send(connection_setup(authorization)) || !read(answer)) return std::nullopt;
        return answer[0] == kSuccess;
    }

    /// After `enter`: whether the server's access list names the user of this process.
    bool names_this_user() {
        // The rest of the answer to the connection setup: its length, in units of four bytes, at 6.
        std::array<uint8_t, 7> head{};
        if (!read(head)) return false;
        std::vector<uint8_t> about_the_server(size_t{load_le<uint16_t>(&head[5])} * 4);
        return read(about_the_server) && send(list_hosts()) && is_in_list();
    }

    UniqueFd release() { return std::move(socket_); }

  private:
    /// The same, chapter 9, "ListHosts".
    static std::vector<uint8_t> list_hosts() {
        constexpr uint8_t kOpcode = 110;
        return {kOpcode, 0, 1, 0};
    }

    bool is_in_list() {
        constexpr uint8_t kError = 0;
        constexpr uint8_t kReply = 1;
        constexpr uint32_t kLongestList = 0x10000;
        std::array<uint8_t, 32> head{};
        do {  // events may come before
            if (!read(head) || head[0] == kError) return false;
        } while (head[0] != kReply);
        const uint32_t words = load_le<uint32_t>(&head[4]);
        std::vector<uint8_t> list(size_t{std::min(words, kLongestList)} * 4);
        return words <= kLongestList && read(list) && has_entry(list, this_user());
    }

    /// Family, unused, length, address, padding; of each host.
    static bool has_entry(std::span<const uint8_t> list, const std::vector<std::string>& wanted) {
        constexpr uint8_t kServerInterpreted = 5;
        constexpr size_t kHead = 4;
        while (list.size() >= kHead) {
            const size_t length = load_le<uint16_t>(&list[2]);
            const size_t whole = kHead + (length + 3) / 4 * 4;
            if (whole > list.size()) return false;
            const std::string address(list.begin() + kHead,
                                      list.begin() + kHead + static_cast<ptrdiff_t>(length));
            if (list[0] == kServerInterpreted &&
                std::find(wanted.begin(), wanted.end(), address) != wanted.end()) {
                return true;
            }
            list = list.subspan(whole);
        }
        return false;
    }

    /// The ways to name the user of this process.
    static std::vector<std::string> this_user() {
        const std::string kind = std::string("localuser") + '\0';
        return {kind + user_name(), kind + "#" + std::to_string(::getuid())};
    }

    /// It is short: a fresh socket's buffer takes it whole.
    bool send(std::span<const uint8_t> request) {
        return ::send(socket_.get(), request.data(), request.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(request.size());
    }

    /// Fills `bytes`.
    bool read(std::span<uint8_t> bytes) {
        while (!bytes.empty()) {
            if (!wait_until_readable()) return false;
            const ssize_t length = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
            if (length < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (length <= 0) return false;
            bytes = bytes.subspan(static_cast<size_t>(length));
        }
        return true;
    }

    bool wait_until_readable() {
        constexpr std::chrono::milliseconds kSlice{50};
        for (;;) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline_ - SteadyClock::now());
            if (left.count() <= 0 || (cancelled_ && cancelled_())) return false;
            pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
            const int ready = ::poll(&entry, 1, static_cast<int>(std::min(left, kSlice).count()));
            if (ready > 0) return true;
            if (ready < 0 && errno != EINTR) return false;
        }
    }

    UniqueFd socket_;
    SteadyClock::time_point deadline_;
    const std::function<bool()>& cancelled_;
};

}  // namespace

std::vector<int> local_x_displays() {
    const std::string prefix = kSocketName;
    std::vector<int> displays;
    for (const std::string& path : folder_entries(kSocketFolder, prefix)) {
        const size_t name = path.rfind('/') + 1 + prefix.size();
        const auto number = local_display_number(":" + path.substr(name));
        if (number && owner_of(path) != Owner::SomebodyElse) displays.push_back(*number);
    }
    std::sort(displays.begin(), displays.end());
    return displays;
}

UniqueFd enter_x_server(int display, const XAuthorization& authorization,
                        SteadyClock::time_point deadline, const std::function<bool()>& cancelled) {
    const std::string path = socket_of(display);
    if (owner_of(path) == Owner::SomebodyElse) return {};
    XConversation server(connect_local(path), deadline, cancelled);
    return server.enter(authorization).value_or(false) ? server.release() : UniqueFd();
}

UniqueFd enter_own_x_server(int display, const XAuthorization& authorization,
                            SteadyClock::time_point deadline,
                            const std::function<bool()>& cancelled) {
    const std::string path = socket_of(display);
    if (owner_of(path) == Owner::Us) {
        return enter_x_server(display, authorization, deadline, cancelled);
    }
    if (authorization.data.empty()) return {};
    XConversation anybody(connect_local(path), deadline, cancelled);
    const std::optional<bool> admitted = anybody.enter({});
    if (!admitted || (*admitted && !anybody.names_this_user())) return {};
    return enter_x_server(display, authorization, deadline, cancelled);
}

}  // namespace ox
