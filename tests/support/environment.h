#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace ox::test {

/// Sets or unsets an environment variable for its own lifetime.
class Environment {
  public:
    Environment(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        set(value);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { set(old_); }

  private:
    void set(const std::optional<std::string>& value) const {
        value ? ::setenv(name_, value->c_str(), 1) : ::unsetenv(name_);
    }

    const char* name_;
    std::optional<std::string> old_;
};

/// Redirects standard output or error for its own lifetime.
class RedirectedFd {
  public:
    /// With `to` = -1 the descriptor is closed.
    RedirectedFd(int fd, int to) : fd_(fd), old_(::fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
        to < 0 ? ::close(fd) : ::dup2(to, fd);
    }
    ~RedirectedFd() { ::dup2(old_.get(), fd_); }

  private:
    int fd_;
    UniqueFd old_;
};

}  // namespace ox::test
