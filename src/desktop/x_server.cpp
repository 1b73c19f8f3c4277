#include "desktop/x_server.h"

#include <X11/Xauth.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/byte_order.h"
#include "base/c_handle.h"
#include "base/environment.h"
#include "base/local_socket.h"
#include "desktop/folder_entries.h"

namespace ox {
namespace {

constexpr std::string_view kCookieScheme = "MIT-MAGIC-COOKIE-1";
constexpr size_t kMaxCookies = 16;  // of one display in one file

using File = CHandle<std::FILE, std::fclose>;
using Entry = CHandle<Xauth, XauDisposeAuth>;

std::string_view text(const char* bytes, unsigned short length) {
    return {bytes, length};
}

// Only a regular file: opening or reading anything else might block.
File open_file(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
    File file(::fdopen(fd.get(), "r"));
    if (file) static_cast<void>(fd.release());
    return file;
}

}  // namespace

std::vector<XAuthorization> x_cookies(const std::string& path, int display) {
    std::vector<XAuthorization> cookies;
    const auto file = open_file(path);
    if (!file) return cookies;
    const std::string wanted = std::to_string(display);
    while (cookies.size() < kMaxCookies) {
        const Entry entry(::XauReadAuth(file.get()));
        if (!entry) break;
        const auto number = text(entry->number, entry->number_length);
        const auto scheme = text(entry->name, entry->name_length);
        if (entry->family != FamilyLocal && entry->family != FamilyWild) continue;
        if ((!number.empty() && number != wanted) || scheme != kCookieScheme) continue;
        XAuthorization cookie{.name = std::string(scheme),
                              .data = std::string(text(entry->data, entry->data_length))};
        // Several host names, one cookie.
        if (std::find(cookies.begin(), cookies.end(), cookie) == cookies.end()) {
            cookies.push_back(std::move(cookie));
        }
    }
    return cookies;
}

namespace {

constexpr const char* kSocketFolder = "/tmp/.X11-unix";
constexpr const char* kSocketName = "X";

std::string socket_path(int display) {
    return std::string(kSocketFolder) + "/" + kSocketName + std::to_string(display);
}

enum class Owner { Us, Root, OtherUser };

// Who runs the server. Any user can create a socket there; one of another user must neither learn a
// cookie nor be captured.
Owner owner_of(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return Owner::OtherUser;
    if (status.st_uid == ::getuid()) return Owner::Us;
    return status.st_uid == 0 ? Owner::Root : Owner::OtherUser;
}

void append_padded(std::vector<uint8_t>& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.resize((bytes.size() + 3) / 4 * 4);
}

// X Window System Protocol 11.0, chapter 8, "Connection Setup".
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

// One connection to an X server, in the byte order that `connection_setup` names.
class XClient {
  public:
    XClient(UniqueFd socket, SteadyClock::time_point deadline,
            const std::function<bool()>& cancelled)
        : socket_(std::move(socket)), deadline_(deadline), cancelled_(cancelled) {}

    // Whether the server admits a client with these credentials; nothing when it does not answer.
    std::optional<bool> authenticate(const XAuthorization& authorization) {
        constexpr uint8_t kSuccess = 1;
        std::array<uint8_t, 1> answer{};
        if (!send(connection_setup(authorization)) || !read(answer)) return std::nullopt;
        return answer[0] == kSuccess;
    }

    // After `authenticate`: whether the server's access list names this process's user.
    bool access_list_names_user() {
        // The rest of the connection setup: its length, in units of four bytes, is at byte 6.
        std::array<uint8_t, 7> head{};
        if (!read(head)) return false;
        std::vector<uint8_t> server_information(size_t{load_le<uint16_t>(&head[5])} * 4);
        return read(server_information) && send(list_hosts()) && read_access_list();
    }

    UniqueFd release() { return std::move(socket_); }

  private:
    // Chapter 9, "ListHosts".
    static std::vector<uint8_t> list_hosts() {
        constexpr uint8_t kOpcode = 110;
        return {kOpcode, 0, 1, 0};
    }

    bool read_access_list() {
        constexpr uint8_t kError = 0;
        constexpr uint8_t kReply = 1;
        constexpr uint32_t kMaxWords = 0x10000;
        std::array<uint8_t, 32> head{};
        do {  // skip events
            if (!read(head) || head[0] == kError) return false;
        } while (head[0] != kReply);
        const uint32_t words = load_le<uint32_t>(&head[4]);
        std::vector<uint8_t> list(size_t{std::min(words, kMaxWords)} * 4);
        return words <= kMaxWords && read(list) && has_entry(list, user_addresses());
    }

    // Each host: family, unused, length, address, padding.
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

    // The addresses that stand for this process's user.
    static std::vector<std::string> user_addresses() {
        const std::string kind = std::string("localuser") + '\0';
        return {kind + user_name(), kind + "#" + std::to_string(::getuid())};
    }

    // Requests are short: a new socket's buffer has room for them.
    bool send(std::span<const uint8_t> request) {
        return ::send(socket_.get(), request.data(), request.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(request.size());
    }

    // Fills `bytes`.
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
        constexpr std::chrono::milliseconds kCancelInterval{50};
        for (;;) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline_ - SteadyClock::now());
            if (left.count() <= 0 || (cancelled_ && cancelled_())) return false;
            pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
            const int ready =
                ::poll(&entry, 1, static_cast<int>(std::min(left, kCancelInterval).count()));
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
        if (number && owner_of(path) != Owner::OtherUser) displays.push_back(*number);
    }
    std::sort(displays.begin(), displays.end());
    return displays;
}

UniqueFd connect_x_server(int display, const XAuthorization& authorization,
                          SteadyClock::time_point deadline,
                          const std::function<bool()>& cancelled) {
    const std::string path = socket_path(display);
    if (owner_of(path) == Owner::OtherUser) return {};
    XClient server(connect_local(path), deadline, cancelled);
    return server.authenticate(authorization).value_or(false) ? server.release() : UniqueFd();
}

UniqueFd connect_own_x_server(int display, const XAuthorization& authorization,
                              SteadyClock::time_point deadline,
                              const std::function<bool()>& cancelled) {
    const std::string path = socket_path(display);
    if (owner_of(path) == Owner::Us) {
        return connect_x_server(display, authorization, deadline, cancelled);
    }
    if (authorization.data.empty()) return {};
    XClient anonymous(connect_local(path), deadline, cancelled);
    const std::optional<bool> admitted = anonymous.authenticate({});
    if (!admitted || (*admitted && !anonymous.access_list_names_user())) return {};
    return connect_x_server(display, authorization, deadline, cancelled);
}

}  // namespace ox
