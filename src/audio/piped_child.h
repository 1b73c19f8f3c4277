#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ox {

/// A child process whose standard output is a pipe to us. It inherits that pipe, our standard error
/// and no other descriptor, and gets SIGTERM when the thread that started it ends.
class PipedChild {
  public:
    PipedChild() = default;
    ~PipedChild() { stop(); }
    PipedChild(const PipedChild&) = delete;
    PipedChild& operator=(const PipedChild&) = delete;

    enum class Started { Ok, NoPipe, NoFork };

    /// Runs `argv[0]`, looked up in PATH, in our environment with the `overrides` ("NAME=value").
    /// Errors leave errno set. A program that cannot be executed shows as an immediate end of
    /// stream.
    Started start(const std::vector<std::string>& argv, const std::vector<std::string>& overrides);

    [[nodiscard]] int output() const { return output_.get(); }
    [[nodiscard]] bool is_open() const { return output_.is_open(); }
    [[nodiscard]] pid_t pid() const { return pid_; }

    /// Closes the pipe, sends SIGTERM and waits for the child for at most about 200 ms. A child
    /// that does not end in that time is abandoned. Safe to call twice.
    void stop();

  private:
    UniqueFd output_;
    pid_t pid_ = -1;
};

/// Output of a shell command, without trailing white space and cut at 255 bytes. At the `limit`, or
/// once `cancelled` (polled every 50 ms) returns true: what has come if it has a complete line,
/// else empty.
std::string shell_output(const std::string& command, const std::vector<std::string>& overrides,
                         std::chrono::milliseconds limit, const std::function<bool()>& cancelled);

}  // namespace ox
