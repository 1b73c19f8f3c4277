#include "desktop/x_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "base/byte_order.h"
#include "base/local_socket.h"
#include "desktop/folder_entries.h"

namespace ox {
namespace {

constexpr const char* kSocketFolder = "/tmp/.X11-unix";
constexpr const char* kSocketName = "X";

std::string socket_of(int display) {
    return std::string(kSocketFolder) + "/" + kSocketName + std::to_string(display);
}

/// Anybody can put a socket there. Not to be told a cookie, nor to show the player a picture.
bool is_trusted(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
           (status.st_uid == ::getuid() || status.st_uid == 0);
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

/// Sends `request` and gives the first byte of the answer; -1 when none comes before `deadline`.
int first_byte_of_answer(int socket, std::span<const uint8_t> request,
                         SteadyClock::time_point deadline) {
    // It is short: a fresh socket's buffer takes it whole.
    const ssize_t sent = ::send(socket, request.data(), request.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(request.size())) return -1;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
        if (left.count() <= 0) return -1;
        pollfd entry{.fd = socket, .events = POLLIN, .revents = 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return -1;
        uint8_t byte = 0;
        return ::recv(socket, &byte, 1, 0) == 1 ? byte : -1;
    }
}

}  // namespace

std::vector<int> local_x_displays() {
    const std::string prefix = kSocketName;
    std::vector<int> displays;
    for (const std::string& path : folder_entries(kSocketFolder, prefix)) {
        const size_t name = path.rfind('/') + 1 + prefix.size();
        const auto number = local_display_number(":" + path.substr(name));
        if (number && is_trusted(path)) displays.push_back(*number);
    }
    std::sort(displays.begin(), displays.end());
    return displays;
}

UniqueFd enter_x_server(int display, const XAuthorization& authorization,
                        SteadyClock::time_point deadline) {
    constexpr int kSuccess = 1;
    const std::string path = socket_of(display);
    if (!is_trusted(path)) return {};
    UniqueFd server = connect_local(path);
    const bool admitted =
        server &&
        first_byte_of_answer(server.get(), connection_setup(authorization), deadline) == kSuccess;
    return admitted ? std::move(server) : UniqueFd();
}

}  // namespace ox
