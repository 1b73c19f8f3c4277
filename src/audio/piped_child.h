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

    /// Runs `argv[0]` from PATH with the `overrides` ("NAME=value"). Errors leave errno set; a
    /// program that cannot be executed shows as an immediate end of stream.
    Started start(const std::vector<std::string>& argv, const std::vector<std::string>& overrides);

    [[nodiscard]] int output() const { return output_.get(); }
    [[nodiscard]] bool is_open() const { return output_.is_open(); }
    [[nodiscard]] pid_t pid() const { return pid_; }

    /// Closes the pipe and sends SIGTERM; abandons a child that has not ended after 200 ms.
    void stop();

  private:
    UniqueFd output_;
    pid_t pid_ = -1;
};

/// A shell command's output without trailing white space, cut at 255 bytes. At the `limit` or once
/// `cancelled` (every 50 ms): what has come if it has a complete line, else empty.
std::string shell_output(const std::string& command, const std::vector<std::string>& overrides,
                         std::chrono::milliseconds limit, const std::function<bool()>& cancelled);

}  // namespace ox
