#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace ox {

/// A child process whose standard output is a pipe to us. It inherits that pipe and our standard
/// error and nothing else, and is asked to end when the thread that started it ends.
class PipedChild {
  public:
    PipedChild() = default;
    ~PipedChild() { stop(); }
    PipedChild(const PipedChild&) = delete;
    PipedChild& operator=(const PipedChild&) = delete;

    enum class Started { Ok, NoPipe, NoFork };

    /// Runs `argv[0]`, looked up in PATH, in our environment with what is `added` to it or replaced
    /// in it ("NAME=value"). Errors leave errno as they set it. A program
    /// that cannot be executed shows as an end of stream at once.
    Started start(const std::vector<std::string>& argv, const std::vector<std::string>& added);

    [[nodiscard]] int output() const { return output_.get(); }
    [[nodiscard]] bool is_open() const { return output_.is_open(); }
    [[nodiscard]] pid_t pid() const { return pid_; }

    /// Closes the pipe, asks the child to end and waits for it for at most about 200 ms. A child
    /// that does not end in that time is left to itself. Safe to call twice.
    void stop();

  private:
    UniqueFd output_;
    pid_t pid_ = -1;
};

/// What a shell command prints, without trailing white space and cut at 255 bytes; empty when it
/// prints no line, or no end, within `limit` or until `cancelled`, asked every 50 ms, returns true.
/// `added` as above.
std::string first_output_of(const std::string& shell_command, const std::vector<std::string>& added,
                            std::chrono::milliseconds limit,
                            const std::function<bool()>& cancelled);

}  // namespace ox
