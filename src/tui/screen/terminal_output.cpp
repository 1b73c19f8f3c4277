#include "tui/screen/terminal_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "base/clock.h"

namespace ox::tui {
namespace {

constexpr size_t kMaxBuffered = 65'536;

// Suppresses SIGPIPE in the calling thread; restores its signal mask and keeps a signal that was
// already pending.
class SigpipeGuard {
  public:
    SigpipeGuard() {
        ::sigemptyset(&sigpipe_);
        ::sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        ::sigemptyset(&pending);
        ::sigpending(&pending);
        was_pending_ = ::sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &old_mask_);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;
    ~SigpipeGuard() {
        const timespec at_once{};
        if (!was_pending_) ::sigtimedwait(&sigpipe_, nullptr, &at_once);
        ::pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    }

  private:
    sigset_t sigpipe_{};
    sigset_t old_mask_{};
    bool was_pending_ = false;
};

// Opens the terminal or pipe behind `fd` again, for a non-blocking mode of its own. -1 where that
// is impossible, as for a terminal that belongs to another user.
int reopen_non_blocking(int fd) {
    std::array<char, 32> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    return ::open(link.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

bool is_writable(int fd, int timeout_ms) {
    pollfd poll_fd{.fd = fd, .events = POLLOUT, .revents = 0};
    return ::poll(&poll_fd, 1, timeout_ms) > 0;
}

}  // namespace

TerminalOutput::TerminalOutput(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return;
    if (S_ISSOCK(info.st_mode)) kind_ = Kind::Socket;
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)) fd_.reset(reopen_non_blocking(fd));
    is_shared_ = !fd_;
    if (!fd_) fd_.reset(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void TerminalOutput::flush() {
    while (!buffered_.empty() && write_some()) {
    }
}

void TerminalOutput::flush_within(std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    for (flush(); !buffered_.empty(); flush()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0 || !is_writable(fd_.get(), static_cast<int>(left))) return;
    }
}

bool TerminalOutput::write_some() {
    if (!is_writable(fd_.get(), 0)) return false;
    // A shared descriptor may be blocking: a writable pipe accepts PIPE_BUF bytes without waiting.
    const size_t size =
        is_shared_ ? std::min<size_t>(buffered_.size(), PIPE_BUF) : buffered_.size();
    const SigpipeGuard guard;
    const ssize_t written = kind_ == Kind::Socket ? ::send(fd_.get(), buffered_.data(), size,
                                                           MSG_DONTWAIT | MSG_NOSIGNAL)
                                                  : ::write(fd_.get(), buffered_.data(), size);
    if (written > 0) {
        buffered_.erase(0, static_cast<size_t>(written));
        return true;
    }
    if (written < 0 && errno == EINTR) return true;
    const bool try_later = written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (!try_later) buffered_.clear();
    return false;
}

void LineOutput::add(std::string_view line) {
    if (output_.buffered_bytes() + line.size() + 1 > kMaxBuffered) return;
    output_.add(line);
    output_.add("\n");
}

}  // namespace ox::tui
