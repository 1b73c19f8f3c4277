#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ox::test {

/// A program under test with its own environment and output files. The destructor kills and reaps
/// it, the kernel kills it if the test dies.
class ChildProcess {
  public:
    struct Options {
        std::vector<std::string> argv;  ///< argv[0] is searched in PATH unless it has a "/"
        /// "NAME=value" sets, "NAME" unsets; the last one counts. The rest is inherited.
        std::vector<std::string> environment = {};
        std::string stdout_path = "/dev/null";
        std::string stderr_path = "/dev/null";
    };

    /// A missing program ends with status 127. The calling thread must outlive the program: the
    /// kernel kills it with the thread.
    explicit ChildProcess(const Options& options);
    ~ChildProcess();

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    [[nodiscard]] bool running() { return !wait(std::chrono::milliseconds(0)).has_value(); }

    /// Sends `number` unless the process has been reaped.
    void signal(int number) const;

    /// Exit status as in a shell (128 + signal), or nothing while the process still runs.
    std::optional<int> wait(std::chrono::milliseconds timeout);

    /// CPU time of the whole process so far; zero once it has ended.
    [[nodiscard]] std::chrono::milliseconds cpu_time() const;

  private:
    pid_t pid_ = -1;
    UniqueFd pidfd_;
    std::optional<int> status_;
};

}  // namespace ox::test
