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

constexpr size_t kMostWaiting = 65'536;

// Keeps a write to a pipe without a reader from ending the process. Belongs to one thread; leaves
// its signal mask and what was pending before as they were.
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

// Opens the terminal or pipe behind `fd` a second time: the new handle has a non-blocking mode of
// its own. -1 where that is impossible, as for a terminal that belongs to another user.
int reopen_non_blocking(int fd) {
    std::array<char, 32> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    return ::open(link.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

bool takes_data(int fd, int timeout_ms) {
    pollfd poll_fd{.fd = fd, .events = POLLOUT, .revents = 0};
    return ::poll(&poll_fd, 1, timeout_ms) > 0;
}

}  // namespace

TerminalOutput::TerminalOutput(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return;
    if (S_ISSOCK(info.st_mode)) kind_ = Kind::Socket;
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)) fd_.reset(reopen_non_blocking(fd));
    shared_handle_ = !fd_;
    if (!fd_) fd_.reset(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void TerminalOutput::flush() {
    while (!waiting_.empty() && write_some()) {
    }
}

void TerminalOutput::flush_within(std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    for (flush(); !waiting_.empty(); flush()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0 || !takes_data(fd_.get(), static_cast<int>(left))) return;
    }
}

bool TerminalOutput::write_some() {
    if (!takes_data(fd_.get(), 0)) return false;
    // By the shared handle, only what a writable pipe takes without waiting.
    const size_t size =
        shared_handle_ ? std::min<size_t>(waiting_.size(), PIPE_BUF) : waiting_.size();
    const SigpipeGuard guard;
    const ssize_t written = kind_ == Kind::Socket ? ::send(fd_.get(), waiting_.data(), size,
                                                           MSG_DONTWAIT | MSG_NOSIGNAL)
                                                  : ::write(fd_.get(), waiting_.data(), size);
    if (written > 0) {
        waiting_.erase(0, static_cast<size_t>(written));
        return true;
    }
    if (written < 0 && errno == EINTR) return true;
    const bool later = written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (!later) waiting_.clear();
    return false;
}

void LineOutput::add(std::string_view line) {
    if (output_.waiting() + line.size() + 1 > kMostWaiting) return;
    output_.add(line);
    output_.add("\n");
}

}  // namespace ox::tui
