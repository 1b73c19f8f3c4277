#pragma once

// Private to this folder: Xlib's macros must not reach other code.
#include <X11/Xlib.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <variant>

#include "base/unique_fd.h"
#include "desktop/desktop.h"
#include "video/diagnosis.h"

namespace ox {

struct ScreenSize {
    uint32_t width = 0;
    uint32_t height = 0;
    friend bool operator==(const ScreenSize&, const ScreenSize&) = default;
};

/// A connection that survives whatever the X server does. Xlib's handlers would end the process on
/// a refused request or a lost connection; the first connection replaces them for good. Xlib waits
/// for ever for a hanging server: a watchdog shuts the connection down once `cancelled` has been
/// true, or it has been closing, for a second. One thread.
class XConnection {
  public:
    /// May be empty; called on the watchdog's thread.
    using Cancelled = std::function<bool()>;

    /// `name` is a display name or empty for `$DISPLAY`; without an authorization Xlib looks for
    /// one. Does not wait for a server that hangs.
    static std::variant<std::unique_ptr<XConnection>, Diagnosis> open(
        const std::string& name, const XAuthorization& authorization, Cancelled cancelled);
    ~XConnection();
    XConnection(const XConnection&) = delete;
    XConnection& operator=(const XConnection&) = delete;

    [[nodiscard]] Display* display() const { return display_; }
    [[nodiscard]] Window root() const;

    /// True once the server is gone: every further call would fail.
    [[nodiscard]] bool lost() const { return lost_; }

    /// From now on the server is waited for a second at most.
    void begin_close() { closing_ = true; }

    /// Empties the event queue without a round trip to the server.
    void process_events(const std::function<void(const XEvent&)>& sink);
    /// The root window's new size if the event reports one.
    [[nodiscard]] std::optional<ScreenSize> size_in(const XEvent& event) const;

    /// The root window's size, from the server; empty when it does not answer.
    std::optional<ScreenSize> query_size();

  private:
    XConnection(Display* display, Cancelled cancelled);
    void run_watchdog(const std::stop_token& stop) const;

    Display* display_;
    bool lost_ = false;
    Cancelled cancelled_;
    std::atomic<bool> closing_{false};
    UniqueFd socket_;  ///< the watchdog's copy: Xlib closes its own
    std::jthread watchdog_;
};

/// Detects a request that the server refused since the trap was set. One at a time per thread.
class XErrorTrap {
  public:
    explicit XErrorTrap(const XConnection& connection);
    /// Waits until the server has handled all requests. True when it refused one or is gone.
    [[nodiscard]] bool failed() const;

  private:
    const XConnection& connection_;
    uint64_t errors_before_;
};

}  // namespace ox
