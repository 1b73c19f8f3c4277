#include "launcher/client/control_client.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "base/resolve_host.h"
#include "base/sleep.h"
#include "launcher/client/control_messages.h"

namespace ox::launcher {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPollSlice{100};
constexpr milliseconds kRetryPause{100};
constexpr milliseconds kSendLimit{1000};
// The kernel doubles its pauses up to half a minute, by which a network is long back.
constexpr milliseconds kAttemptLimit{3000};
constexpr size_t kMaxLine = 65536;  // the agent's lines are far shorter

enum class Wait : uint8_t { Ready, TimedOut, Stopped };

Wait wait_for(int fd, int16_t events, SteadyClock::time_point deadline,
              const ControlClient::StopPredicate& stop) {
    for (;;) {
        if (stop && stop()) return Wait::Stopped;
        const auto left =
            std::chrono::duration_cast<milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0) return Wait::TimedOut;
        pollfd entry{.fd = fd, .events = events, .revents = 0};
        if (::poll(&entry, 1, static_cast<int>(std::min<int64_t>(left, kPollSlice.count()))) > 0)
            return Wait::Ready;
    }
}

}  // namespace

ConnectResult ControlClient::connect(const std::string& host, uint16_t port,
                                     const std::string& auth_line, SteadyClock::time_point deadline,
                                     const StopPredicate& stop) {
    close();
    error_.clear();
    for (;;) {
        switch (try_connect(host, port, deadline, stop)) {
            case Attempt::Stopped:
                return ConnectResult::Stopped;
            case Attempt::UnknownHost:
                return ConnectResult::UnknownHost;
            case Attempt::TryAgain:
                break;
            case Attempt::Connected: {
                connected_ = true;
                ended_by_agent_ = false;
                last_heard_us_ = steady_now_us();
                const auto result = authenticate(auth_line, deadline, stop);
                if (result == ConnectResult::Ready) {
                    reader_ = std::jthread([this] { reader_loop(); });
                    return *result;
                }
                connected_ = false;
                socket_.reset();
                if (result) return *result;
            }
        }
        const auto pause_end = SteadyClock::now() + kRetryPause;
        if (pause_end >= deadline) return ConnectResult::Refused;
        if (!sleep_until_or(pause_end, [&] { return stop && stop(); }))
            return ConnectResult::Stopped;
    }
}

ControlClient::Attempt ControlClient::try_connect(const std::string& host, uint16_t port,
                                                  SteadyClock::time_point deadline,
                                                  const StopPredicate& stop) {
    const ResolvedHost resolved = resolve_host(
        host, port, AF_INET, stop ? stop : [] { return false; });
    if (!resolved.addresses) {
        error_ = "cannot resolve '" + host + "': " + ::gai_strerror(resolved.error);
        return resolved.error == EAI_NONAME ? Attempt::UnknownHost : Attempt::TryAgain;
    }
    sockaddr_in address{};
    std::memcpy(&address, resolved.addresses->ai_addr, sizeof address);
    const std::string target = host + " port " + std::to_string(port);
    socket_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (!local_ip_.empty() &&
        (::inet_pton(AF_INET, local_ip_.c_str(), &local.sin_addr) != 1 ||
         ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)) {
        error_ = "cannot send from '" + local_ip_ + "'";
        return Attempt::TryAgain;
    }
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        int failure = errno;
        if (failure == EINPROGRESS) {
            const auto attempt_end = std::min(deadline, SteadyClock::now() + kAttemptLimit);
            const Wait wait = wait_for(socket_.get(), POLLOUT, attempt_end, stop);
            if (wait == Wait::Stopped) return Attempt::Stopped;
            // Cut short by the deadline: what the attempts before it met says more.
            if (wait == Wait::TimedOut && attempt_end == deadline && !error_.empty())
                return Attempt::TryAgain;
            socklen_t size = sizeof failure;
            if (wait == Wait::TimedOut)
                failure = ETIMEDOUT;
            else
                ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &failure, &size);
        }
        if (failure != 0) {
            error_ = "cannot connect to " + target + ": " + std::strerror(failure);
            return Attempt::TryAgain;
        }
    }
    const int on = 1;
    ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    agent_ip_ = text.data();
    received_.clear();
    return Attempt::Connected;
}

// Nothing when the connection was reset, which says nothing about the token: an agent that ends its
// session resets the launchers that wait in its queue.
std::optional<ConnectResult> ControlClient::authenticate(const std::string& auth_line,
                                                         SteadyClock::time_point deadline,
                                                         const StopPredicate& stop) {
    send_line(auth_line);  // a failure shows in the answer
    std::array<char, 2048> chunk{};
    size_t end = std::string::npos;
    while ((end = received_.find('\n')) == std::string::npos) {
        const Wait wait = wait_for(socket_.get(), POLLIN, deadline, stop);
        if (wait == Wait::Stopped) return ConnectResult::Stopped;
        if (wait == Wait::TimedOut) {
            error_ =
                "the agent accepted the connection but did not answer (is it busy with "
                "another session?)";
            return ConnectResult::NoAnswer;
        }
        const ssize_t got = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got < 0) {
            error_ = std::string("the agent cut the connection: ") + std::strerror(errno);
            return std::nullopt;
        }
        if (got == 0) {
            error_ = "the agent closed the connection after the auth line: token rejected";
            return ConnectResult::Rejected;
        }
        received_.append(chunk.data(), static_cast<size_t>(got));
        if (received_.size() > kMaxLine) break;
    }
    if (end == std::string::npos) {
        error_ = "the agent's answer is too long";
        return ConnectResult::BadAnswer;
    }
    const bool ready =
        parse_session_ready(std::string_view(received_).substr(0, end), keys_, error_);
    received_.erase(0, end + 1);
    return ready ? ConnectResult::Ready : ConnectResult::BadAnswer;
}

void ControlClient::reader_loop() {
    std::array<char, 2048> chunk{};
    while (connected_) {
        pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
        if (::poll(&entry, 1, static_cast<int>(kPollSlice.count())) <= 0) continue;
        const ssize_t got = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got == 0) ended_by_agent_ = true;
        if (got <= 0) break;
        last_heard_us_ = steady_now_us();
        received_.append(chunk.data(), static_cast<size_t>(got));
        size_t begin = 0;
        for (size_t end; (end = received_.find('\n', begin)) != std::string::npos; begin = end + 1)
            on_line(std::string_view(received_).substr(begin, end - begin));
        received_.erase(0, begin);
        if (received_.size() > kMaxLine) break;
    }
    connected_ = false;
}

void ControlClient::on_line(std::string_view line) {
    const auto ts = parse_pong(line);
    const auto now = static_cast<int64_t>(steady_now_us());
    if (!ts || *ts <= 0 || *ts > now) return;
    const double sample = static_cast<double>(now - *ts) / 1000.0;
    const double smoothed = rtt_ms_;
    rtt_ms_ = smoothed == 0.0 ? sample : smoothed + (sample - smoothed) / 8.0;
}

bool ControlClient::send_ping() {
    return send_line(make_ping_line(static_cast<int64_t>(steady_now_us())));
}

bool ControlClient::send_line(std::string_view line) {
    std::string text(line);
    text += '\n';
    const MutexLock lock(send_mutex_);
    const auto deadline = SteadyClock::now() + kSendLimit;
    std::string_view left = text;
    while (connected_ && !left.empty()) {
        const ssize_t sent = ::send(socket_.get(), left.data(), left.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            left.remove_prefix(static_cast<size_t>(sent));
            continue;
        }
        const bool may_try_again = sent >= 0 || errno == EINTR || errno == EAGAIN;
        if (!may_try_again || wait_for(socket_.get(), POLLOUT, deadline, nullptr) == Wait::TimedOut)
            break;
    }
    if (left.empty()) return true;
    connected_ = false;  // the next line would continue this one
    return false;
}

void ControlClient::close() {
    connected_ = false;
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);
    if (reader_.joinable()) reader_.join();
    const MutexLock lock(send_mutex_);
    socket_.reset();
}

}  // namespace ox::launcher
