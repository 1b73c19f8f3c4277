#include "control/auth_reader.h"

#include <sys/socket.h>

#include <cerrno>
#include <string_view>

#include "control/wait_readable.h"

namespace ox {
namespace {

constexpr size_t kLongestLine = 16383;
constexpr size_t kChunkBytes = 2048;

AuthRead as_auth_read(WaitResult result) {
    if (result == WaitResult::aborted) return AuthRead::aborted;
    return result == WaitResult::timed_out ? AuthRead::timed_out : AuthRead::failed;
}

AuthRead read_chunks(int fd, SteadyClock::time_point deadline, const std::function<bool()>& abort,
                     Secret& line) {
    Secret buffer(kChunkBytes);
    while (line.size() <= kLongestLine) {
        const auto wait = wait_readable(fd, deadline, abort);
        if (wait != WaitResult::readable) return as_auth_read(wait);
        const ssize_t received = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (received < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (received <= 0) return AuthRead::closed;
        const std::string_view chunk = buffer.text().substr(0, static_cast<size_t>(received));
        const size_t line_feed = chunk.find('\n');
        line.append(chunk.substr(0, line_feed));
        if (line_feed != std::string_view::npos) return AuthRead::complete;
    }
    return AuthRead::too_large;
}

}  // namespace

AuthRead read_auth_line(int fd, SteadyClock::time_point deadline,
                        const std::function<bool()>& abort, Secret& line) {
    line.clear();
    // All it can ever take, so that it need not grow.
    line.reserve(kLongestLine + kChunkBytes);
    return read_chunks(fd, deadline, abort, line);
}

}  // namespace ox
