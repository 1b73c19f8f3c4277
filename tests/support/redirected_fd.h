#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace ox::test {

/// Redirects standard output or error for its own lifetime.
class RedirectedFd {
  public:
    /// With `to` = -1 the descriptor is closed.
    RedirectedFd(int fd, int to) : fd_(fd), old_(::fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
        to < 0 ? ::close(fd) : ::dup2(to, fd);
    }
    RedirectedFd(const RedirectedFd&) = delete;
    RedirectedFd& operator=(const RedirectedFd&) = delete;
    ~RedirectedFd() { ::dup2(old_.get(), fd_); }

  private:
    int fd_;
    UniqueFd old_;
};

}  // namespace ox::test
