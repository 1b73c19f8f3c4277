#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace ox::test {

/// A test's own X server on an unused display.
class Xvfb {
  public:
    struct Setup {
        std::string screen = "640x480x24";        ///< width x height x depth
        std::vector<std::string> arguments = {};  ///< more of them, e.g. "-extension", "MIT-SHM"
        std::vector<std::string> wrapper = {};    ///< runs it: "unshare", "--ipc"
    };

    /// Null when the server does not start: Xvfb is not installed, or the wrapper fails.
    static std::unique_ptr<Xvfb> start(const Setup& setup);

    /// ":7", for XOpenDisplay and the `DISPLAY` variable.
    [[nodiscard]] const std::string& display() const { return display_; }
    [[nodiscard]] ChildProcess& process() { return *process_; }
    /// SIGKILL, and waits until the server is gone.
    void kill();

  private:
    std::unique_ptr<ChildProcess> process_;
    std::string display_;
};

}  // namespace ox::test
