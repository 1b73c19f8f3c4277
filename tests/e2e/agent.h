#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/log_file.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

namespace ox::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kSlowdown = 4;
#else
inline constexpr int kSlowdown = 1;
#endif

/// Time limit for expected events.
inline constexpr std::chrono::milliseconds kPatience{10'000 * kSlowdown};
/// Time limit for the agent's end after SIGTERM.
inline constexpr std::chrono::milliseconds kStopLimit{1'000 * kSlowdown};

/// The session token that every test agent expects.
inline constexpr const char* kToken = "let me in";
inline constexpr const char* kTokenSha256 =
    "992db5e2595725ef68eb5066e014da8c7f6baca0afa96f1021b56b66782133f2";

/// A launcher's first line; `more` adds fields (", \"fps\":30").
std::string auth_line(const std::string& more = "", const std::string& token = kToken);

/// The real program, in a scratch folder and on ports of its own. The destructor checks that it
/// stops on SIGTERM with status 0 (a sanitizer's finding makes the status non-zero).
class Agent {
  public:
    struct Setup {
        std::vector<std::string> arguments = {};
        std::vector<std::string> environment = {};  ///< as in ChildProcess::Options
        std::string capture = "synthetic";
        std::string terminal = {};  ///< path of a terminal for standard output; else a file
        std::vector<std::string> wrapper = {};  ///< runs it, and becomes it by exec
        bool input = false;  ///< accepts input, and injects it if there is /dev/uinput
        std::shared_ptr<PortBlock> ports = std::make_shared<PortBlock>();
    };

    Agent();
    explicit Agent(const Setup& setup);
    ~Agent();

    [[nodiscard]] uint16_t port_base() const { return ports_->base(); }
    [[nodiscard]] uint16_t control_port() const { return ports_->control(); }
    /// The log file, at level DEBUG.
    [[nodiscard]] const LogFile& log() const { return log_; }
    /// The terminal's output.
    [[nodiscard]] const LogFile& screen() const { return screen_; }
    [[nodiscard]] ChildProcess& process() { return process_; }
    /// A file in the scratch folder: "agent.log", "screen.txt", "stderr.txt".
    [[nodiscard]] std::string folder_file(const std::string& name) const {
        return folder_.file(name);
    }

    /// Waits for `times` log lines with `text`. False, and a test failure, on a timeout.
    bool wait_for_log(const std::string& text, size_t times = 1) const;

    /// SIGTERM, then a test failure unless the program ends with status 0 within kStopLimit.
    void expect_prompt_stop();

  private:
    std::shared_ptr<PortBlock> ports_;
    TempDir folder_;
    LogFile log_;
    LogFile screen_;
    ChildProcess process_;
};

}  // namespace ox::test
