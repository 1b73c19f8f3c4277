#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/options.h"
#include "base/clock.h"

namespace ox {

/// Tells the owner, in the log, which parts of a desktop are missing for sessions with these
/// options: once at the start, and again when one has come. Each session looks for itself; nothing
/// depends on this. Used by the main thread between sessions.
class DesktopNotice {
  public:
    using Cancelled = std::function<bool()>;

    explicit DesktopNotice(const Options& options);

    /// Looks for what is missing still. Takes a few milliseconds, more only where servers do not
    /// answer, and then does nothing for the next ten seconds. Returns within 50 ms once
    /// `cancelled` returns true: somebody waits for the thread.
    void look(const Cancelled& cancelled);
    /// The same, but at most once in ten seconds.
    void look_now_and_then(const Cancelled& cancelled);

  private:
    struct Part {
        const char* name;
        /// What is there, in words; empty while nothing is.
        std::function<std::string(const Cancelled&)> find;
    };

    std::vector<Part> missing_;
    bool told_ = false;
    SteadyClock::time_point next_look_{};
    SteadyClock::time_point not_before_{};
};

}  // namespace ox
