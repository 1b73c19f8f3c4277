#pragma once

// Private to this folder: Xlib's macros must not reach anybody else.
#include <X11/Xlib.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "desktop/desktop.h"

namespace ox {

struct ScreenSize {
    uint32_t width = 0;
    uint32_t height = 0;
    friend bool operator==(const ScreenSize&, const ScreenSize&) = default;
};

/// A connection to an X server that survives whatever the server does. Xlib's own handlers end the
/// process on a refused request and on a lost connection; opening the first connection replaces
/// them for the whole process. Used by one thread.
///
/// Xlib waits for a server that hangs as long as it hangs. A watchdog hangs up on it once
/// `cancelled` has been true, or the connection been about to close, for a second: the call that
/// waits then fails, and the connection is lost.
class XConnection {
  public:
    /// May be empty; is asked from the watchdog's thread.
    using Cancelled = std::function<bool()>;

    /// `name` is a display name or empty for `$DISPLAY`; without an authorization Xlib looks for
    /// one. Null when there is no such server, when it does not let us in, or, with `hangs` set,
    /// when it does not answer.
    static std::unique_ptr<XConnection> open(const std::string& name,
                                             const XAuthorization& authorization,
                                             Cancelled cancelled, bool& hangs);
    ~XConnection();
    XConnection(const XConnection&) = delete;
    XConnection& operator=(const XConnection&) = delete;

    [[nodiscard]] Display* display() const { return display_; }
    [[nodiscard]] Window root() const;

    /// True once the server is gone: every further call would fail.
    [[nodiscard]] bool lost() const { return lost_; }

    /// Nobody wants pictures any more: from now on the server is waited for a second at the most.
    void begin_close() { closing_ = true; }

    /// Empties the event queue without a round trip to the server.
    void take_events(const std::function<void(const XEvent&)>& sink);
    /// The root window's new size if that is what the event tells of.
    [[nodiscard]] std::optional<ScreenSize> size_in(const XEvent& event) const;

    /// Asks the server for the root window's size; empty when it does not answer.
    std::optional<ScreenSize> query_size();

  private:
    XConnection(Display* display, Cancelled cancelled);
    void watch(const std::stop_token& stop) const;

    Display* display_;
    bool lost_ = false;
    Cancelled cancelled_;
    std::atomic<bool> closing_{false};
    UniqueFd socket_;  ///< the watchdog's copy: Xlib closes its own
    std::jthread watchdog_;
};

/// Tells whether the server refused a request made since the trap was set. One at a time per
/// thread.
class XErrorTrap {
  public:
    explicit XErrorTrap(const XConnection& connection);
    /// Waits for the server to have seen all requests. True when one was refused or the server is
    /// gone.
    [[nodiscard]] bool failed() const;

  private:
    const XConnection& connection_;
    uint64_t errors_before_;
};

}  // namespace ox
