#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ox::test {

/// A program under test: started with its own environment, output to files, killed and reaped
/// by the destructor, and by the kernel if the test itself dies.
class ChildProcess {
  public:
    struct Options {
        std::vector<std::string> argv;  ///< argv[0] is looked up in PATH when it has no "/"
        /// "NAME=value" sets, "NAME" alone unsets; of two for one name the later one counts.
        /// Everything else is inherited.
        std::vector<std::string> environment = {};
        std::string stdout_path = "/dev/null";
        std::string stderr_path = "/dev/null";
    };

    /// A program that is not there ends with status 127. The kernel kills the program when the
    /// calling thread ends, so start it from a thread that outlives it.
    explicit ChildProcess(const Options& options);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    [[nodiscard]] bool running() { return !wait(std::chrono::milliseconds(0)).has_value(); }

    /// Sends `number` if the process has not been reaped yet.
    void signal(int number) const;

    /// Exit status as a shell gives it (128 + signal for a killed one), or nothing when the process
    /// still runs after `timeout`.
    std::optional<int> wait(std::chrono::milliseconds timeout);

    /// CPU time of the whole process so far; zero once it has ended.
    [[nodiscard]] std::chrono::milliseconds cpu_time() const;

  private:
    pid_t pid_ = -1;
    UniqueFd pidfd_;
    std::optional<int> status_;
};

}  // namespace ox::test
