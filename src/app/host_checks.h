#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "app/options.h"
#include "base/clock.h"

// What is wrong with the PC, for its owner. Used by the main thread outside of sessions.

namespace ox {

/// An NVIDIA display adapter without its kernel driver. `root` stands for "/".
bool nvidia_driver_missing(const std::filesystem::path& root);

/// IPv4 in the network through which this PC reaches others; empty without one. Sends nothing.
std::string own_ip_address();

/// Faults that can be mended between sessions: the input device, a control port that did not open.
class IdleWatch {
  public:
    /// `uinput` is for tests.
    explicit IdleWatch(const Options& options, std::string uinput = "/dev/uinput")
        : options_(options), uinput_(std::move(uinput)) {}

    void check();

  private:
    const Options& options_;
    std::string uinput_;
    int uinput_error_ = 0;  ///< of the last check
};

/// Logs which parts of a desktop the sessions lack, and later that one has come.
class DesktopNotice {
  public:
    using Cancelled = std::function<bool()>;

    explicit DesktopNotice(const Options& options);

    /// Checks what is still missing, within 50 ms once `cancelled` returns true. Where servers do
    /// not answer that takes longer, and no further check is made for ten seconds.
    void check(const Cancelled& cancelled);
    /// The same, at most once in ten seconds.
    void check_if_due(const Cancelled& cancelled);

  private:
    struct Part {
        const char* name;
        /// A description of the part; empty while it is missing.
        std::function<std::string(const Cancelled&)> find;
    };

    std::vector<Part> missing_;
    bool reported_ = false;
    SteadyClock::time_point next_check_{};
    SteadyClock::time_point not_before_{};
};

}  // namespace ox
